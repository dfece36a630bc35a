// cdl::json_writer: a streaming writer of compact JSON text.
//
// Objects and arrays are opened and closed explicitly; inside an object each
// member starts with key(). Scalars are written by value<T>() or, already
// encoded, by raw_value(). The writer tracks nesting and raises
// cdl::exception on any call that would make the text invalid (a value where
// a member name is due, a key outside an object, an unbalanced end, a second
// top-level value, or take() before the document is complete). raw_value()
// trusts its argument to be one complete JSON value.
//
// value<T> is specialised by the runtime for bool, std::string, long and
// double; the library adds unsigned long and its nullable forms
// (<cdl/json_values.hpp>).
//
// Thread-safety: one writer per thread.
#pragma once

#include <cdl/nullable.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace cdl {

// Small wrappers carried through every writer call; null by default.
template <typename T>
struct api_version_t {
  nullable<T> value;
};
template <typename T>
struct print_type_t {
  nullable<T> value;
};

class json_writer {
 public:
  json_writer() = default;

  void begin_object();
  void end_object();
  void begin_array();
  void end_array();
  // Starts the member `name` of the current object. `copy_name` says whether
  // the writer must copy the name; this streaming writer always does, so the
  // flag only exists for writers that buffer references.
  void key(const std::string& name, bool copy_name);
  void null_value();
  void raw_value(const std::string& json);

  template <typename T>
  void value(const T& v, api_version_t<int> version = {}, print_type_t<int> print = {});

  // True once exactly one complete top-level value has been written.
  bool complete() const;
  // The finished text; raises unless complete(). The writer is left empty.
  std::string take();
  // The text written so far, complete or not.
  const std::string& text() const { return _out; }

 private:
  enum class scope : uint8_t { object_key, object_value, array };
  void before_value();
  void after_value();

  std::string _out;
  std::vector<scope> _scopes;
  std::vector<bool> _first;
  bool _root_written = false;
};

template <>
void json_writer::value<bool>(const bool& v, api_version_t<int>, print_type_t<int>);
template <>
void json_writer::value<std::string>(const std::string& v, api_version_t<int>, print_type_t<int>);
template <>
void json_writer::value<long>(const long& v, api_version_t<int>, print_type_t<int>);
template <>
void json_writer::value<double>(const double& v, api_version_t<int>, print_type_t<int>);

}  // namespace cdl
