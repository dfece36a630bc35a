// The base of named validation constraints (host runtime).
//
// A constraint has a name (used in error messages), a message for users, and
// can be disabled, in which case it accepts every value.
//
// Thread-safety: immutable after construction except set_disabled(), which
// must happen before concurrent use.
#pragma once

#include <string>

namespace cdl {

class validation_constraint {
 public:
  validation_constraint(std::string name, std::string message)
      : _name(std::move(name)), _message(std::move(message)) {}
  virtual ~validation_constraint();

  const std::string& name() const { return _name; }
  const std::string& message() const { return _message; }
  bool is_disabled() const { return _disabled; }
  void set_disabled(bool disabled) { _disabled = disabled; }

 private:
  std::string _name;
  std::string _message;
  bool _disabled = false;
};

}  // namespace cdl
