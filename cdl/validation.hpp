// Named validation constraints and the shared constraint constants.
//
// functional_constraint<T> accepts a value when its test does (or when the
// constraint is disabled); assertion() returns the value or raises
// cdl::exception "Assertion failure (<name>)". numeric_constraint checks an
// inclusive [minimum, maximum] range.
//
// Thread-safety: constraints are immutable after construction.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/validation_constraint.hpp>

#include <functional>
#include <regex>
#include <string>

namespace cdl {

template <typename T>
class functional_constraint : public validation_constraint {
 public:
  functional_constraint(std::function<bool(const T&)> test, const std::string& name, const std::string& message)
      : validation_constraint(name, message), _test(std::move(test)) {}

  virtual bool is_valid(const T& value) const {
    if (is_disabled()) return true;
    return _test(value);
  }
  virtual T assertion(const T& value) const {
    if (is_valid(value)) return value;
    throw exception(CDL_FILE_NAME, 166, "Assertion failure (%s)", name());
  }

 private:
  std::function<bool(const T&)> _test;
};

template <typename T>
class numeric_constraint;

template <>
class numeric_constraint<unsigned long> : public functional_constraint<unsigned long> {
 public:
  numeric_constraint(unsigned long minimum, unsigned long maximum, const std::string& name,
                     const std::string& message)
      : functional_constraint<unsigned long>(
            [minimum, maximum](const unsigned long& v) { return minimum <= v && v <= maximum; }, name, message),
        _minimum(minimum),
        _maximum(maximum) {}

  unsigned long minimum() const { return _minimum; }
  unsigned long maximum() const { return _maximum; }

 private:
  unsigned long _minimum;
  unsigned long _maximum;
};

// Runtime constraints on strings.
class regex_constraint : public functional_constraint<std::string> {
 public:
  regex_constraint(const std::string& expression, const std::string& name, const std::string& message);
};
class ipv4_constraint : public functional_constraint<std::string> {
 public:
  ipv4_constraint(const std::string& name, const std::string& message);
};
class ipv6_constraint : public functional_constraint<std::string> {
 public:
  ipv6_constraint(const std::string& name, const std::string& message);
};

}  // namespace cdl

namespace csl {

// Header constants: each translation unit builds its own copy.
static const cdl::ipv4_constraint IPV4_CONSTRAINT("ipv4_constraint",
                                                  "The input must be a valid IPv4 address. (e.g.: 192.168.1.1)");
static const cdl::ipv6_constraint IPV6_CONSTRAINT(
    "ipv6_constraint", "The input must be a valid IPv6 address. (e.g.: fe80::1ff:fe23:4567:890a)");
static const cdl::regex_constraint HOSTNAME_CONSTRAINT(
    "^(([a-zA-Z0-9]|[a-zA-Z0-9][a-zA-Z0-9\\-]*[a-zA-Z0-9])\\.)*([A-Za-z0-9]|[A-Za-z0-9][A-Za-z0-9\\-]*[A-Za-z0-9])$",
    "hostname_constraint", "The input must be a valid hostname.");
static const cdl::functional_constraint<std::string> IPV4V6HOSTNAME_CONSTRAINT(
    [](const std::string& text) {
      if (HOSTNAME_CONSTRAINT.is_valid(text)) return true;
      if (IPV4_CONSTRAINT.is_valid(text)) return true;
      return IPV6_CONSTRAINT.is_valid(text);
    },
    "hostname_ipv4_ipv6_constraint", "The input must be a valid hostname or IPv4 or IPv6 address.");
static const cdl::numeric_constraint<unsigned long> PORT_CONSTRAINT(1, 65535, "port_constraint",
                                                                    "Ports must be between 1 and 65535.");
static const std::string SYSLOG_PATH = "/data/log/syslog";
static const std::string APPLOG_PATH = "/data/log/applog";
static const std::string SYSLOG_CONFIG_FILE = "/etc/rsyslog.d/remote.conf";

}  // namespace csl
