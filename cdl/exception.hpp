// The exception family of the library and cdl::throw_assert.
//
// Every failure is a cdl::exception (a std::runtime_error whose what() is the
// formatted message) that also records the base name of the raising source
// file and a line. Subclasses only change the dynamic type. The messages are
// formatted with cdl::format_str; throw_assert formats its text and passes
// the result through the formatter a second time, so a conversion sequence
// that reaches the text through an argument is expanded again. Callers must
// therefore never pass untrusted text through throw_assert arguments.
//
// The key functions (destructors) live in the host runtime, which thereby
// owns the classes' virtual tables and type information.
//
// Thread-safety: exception objects are immutable after construction.
#pragma once

#include <cdl/format.hpp>
#include <cdl/text.hpp>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

namespace cdl {

// The base name of `path`: the text after its last path separator, or the
// whole path when it holds none.
inline std::string file_name_of(const std::string& path) {
  const auto pos = path.rfind(path_separator());
  return pos == std::string::npos ? path : path.substr(pos + 1);
}

// Base name of the current source file, as recorded by exceptions.
#define CDL_FILE_NAME (::cdl::file_name_of(__FILE__))

class exception : public std::runtime_error {
 public:
  exception(const std::string& file, unsigned long line)
      : std::runtime_error(std::string()), _file(file), _line(line) {}
  template <typename... Args>
  exception(const std::string& file, unsigned long line, const std::string& fmt, const Args&... args)
      : std::runtime_error(format_str(fmt, args...)), _file(file), _line(line) {}
  ~exception() override;

  const std::string& file() const { return _file; }
  unsigned long line() const { return _line; }

 private:
  // The three text fields and the two codes belong to facilities of the
  // host's exception class that this library never uses.
  std::string _text1;
  int32_t _code1 = 0;
  int32_t _code2 = 0;
  std::string _text2;
  std::string _file;
  unsigned long _line;
  std::string _text3;
};

#define CDL_DEFINE_EXCEPTION(name)   \
  class name : public exception {    \
   public:                           \
    using exception::exception;      \
    ~name() override;                \
  };

CDL_DEFINE_EXCEPTION(assertion_failure)
CDL_DEFINE_EXCEPTION(missing_field_error)
CDL_DEFINE_EXCEPTION(unexpected_type_error)
CDL_DEFINE_EXCEPTION(not_in_range_error)
CDL_DEFINE_EXCEPTION(unrecognized_value_error)
#undef CDL_DEFINE_EXCEPTION

[[noreturn]] inline void throw_assert(const std::string& file, unsigned long line) {
  throw assertion_failure(file, line);
}

template <typename... Args>
[[noreturn]] void throw_assert(const std::string& file, unsigned long line, const std::string& fmt,
                               const Args&... args) {
  if (fmt.empty()) throw assertion_failure(file, line);
  const std::string text = format_str(fmt, args...);
  // The expanded text is deliberately used as a format once more.
  throw assertion_failure(file, line, text);
}

// Error kinds of the host's request layer, with their texts.
enum class error_type : int32_t {
  bad_request = 0,
  not_found = 1,
  request_timeout = 2,
  conflict = 3,
  precondition_failed = 4,
  range_not_satisfiable = 5,
  internal_server_error = 6,
  not_implemented = 7,
  not_supported = 8,
  service_unavailable = 9,
};

namespace impl {
static const std::map<error_type, std::string> error_type_to_str = {
    {error_type::bad_request, "Bad request"},
    {error_type::not_found, "Not found"},
    {error_type::request_timeout, "Request timeout"},
    {error_type::conflict, "Conflict"},
    {error_type::precondition_failed, "Precondition failed"},
    {error_type::range_not_satisfiable, "Range not satisfiable"},
    {error_type::internal_server_error, "Internal server error"},
    {error_type::not_implemented, "Not implemented"},
    {error_type::not_supported, "Not supported"},
    {error_type::service_unavailable, "Service unavailable"},
};
}  // namespace impl

}  // namespace cdl
