#include <cdl/validation.hpp>

#include <arpa/inet.h>

namespace cdl {

validation_constraint::~validation_constraint() = default;

regex_constraint::regex_constraint(const std::string& expression, const std::string& name,
                                   const std::string& message)
    : functional_constraint<std::string>(
          [re = std::regex(expression)](const std::string& text) { return std::regex_match(text, re); }, name,
          message) {}

// Address forms are checked by the system's own parser.
ipv4_constraint::ipv4_constraint(const std::string& name, const std::string& message)
    : functional_constraint<std::string>(
          [](const std::string& text) {
            in_addr address{};
            return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
          },
          name, message) {}

ipv6_constraint::ipv6_constraint(const std::string& name, const std::string& message)
    : functional_constraint<std::string>(
          [](const std::string& text) {
            in6_addr address{};
            return ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
          },
          name, message) {}

}  // namespace cdl
