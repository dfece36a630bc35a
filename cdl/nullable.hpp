// cdl::nullable<T>: an optional value stored as the value followed by a
// flag that says whether it is null.
//
// Two nullables are equal when both are null or both hold equal values; a
// null one never equals a set one. The held value of a null nullable is
// whatever it last held (or T's default) and is not part of comparisons.
//
// Thread-safety: a plain value type; callers synchronise access.
#pragma once

#include <utility>

namespace cdl {

template <typename T>
class nullable {
 public:
  nullable() = default;
  nullable(const T& value) : _value(value), _is_null(false) {}        // NOLINT: implicit by design
  nullable(T&& value) : _value(std::move(value)), _is_null(false) {}  // NOLINT: implicit by design
  // The value and the "is null" flag, as the flag guard builds them.
  nullable(const T& value, bool is_null) : _value(value), _is_null(is_null) {}

  bool is_null() const { return _is_null; }
  void set_null(bool is_null) { _is_null = is_null; }
  // Reference to the held value, also while null (readers fill it in place).
  T& operator*() { return _value; }
  const T& operator*() const { return _value; }
  const T* operator->() const { return &_value; }
  T& value() { return _value; }
  const T& value() const { return _value; }

  nullable& operator=(const T& value) {
    _value = value;
    _is_null = false;
    return *this;
  }

  friend bool operator==(const nullable& a, const nullable& b) {
    if (a._is_null || b._is_null) return a._is_null == b._is_null;
    return a._value == b._value;
  }

 private:
  T _value{};
  bool _is_null = true;
};

}  // namespace cdl
