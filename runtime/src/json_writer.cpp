#include <cdl/exception.hpp>
#include <cdl/json_object.hpp>
#include <cdl/json_writer.hpp>
#include <cdl/text.hpp>

#include <cmath>
#include <cstdio>

namespace cdl {

void json_writer::before_value() {
  if (_scopes.empty()) {
    if (_root_written) throw exception(CDL_FILE_NAME, __LINE__, "json_writer: a second top-level value");
    return;
  }
  switch (_scopes.back()) {
    case scope::object_key:
      throw exception(CDL_FILE_NAME, __LINE__, "json_writer: a value where a member name is due");
    case scope::object_value:
      return;  // key() already wrote the separator and the colon
    case scope::array:
      if (!_first.back()) _out += ',';
      _first.back() = false;
      return;
  }
}

void json_writer::after_value() {
  if (_scopes.empty()) {
    _root_written = true;
  } else if (_scopes.back() == scope::object_value) {
    _scopes.back() = scope::object_key;
  }
}

void json_writer::begin_object() {
  before_value();
  _out += '{';
  _scopes.push_back(scope::object_key);
  _first.push_back(true);
}

void json_writer::end_object() {
  if (_scopes.empty() || _scopes.back() != scope::object_key) {
    throw exception(CDL_FILE_NAME, __LINE__, "json_writer: end_object without an open object");
  }
  _out += '}';
  _scopes.pop_back();
  _first.pop_back();
  after_value();
}

void json_writer::begin_array() {
  before_value();
  _out += '[';
  _scopes.push_back(scope::array);
  _first.push_back(true);
}

void json_writer::end_array() {
  if (_scopes.empty() || _scopes.back() != scope::array) {
    throw exception(CDL_FILE_NAME, __LINE__, "json_writer: end_array without an open array");
  }
  _out += ']';
  _scopes.pop_back();
  _first.pop_back();
  after_value();
}

void json_writer::key(const std::string& name, bool /*copy_name*/) {
  if (_scopes.empty() || _scopes.back() != scope::object_key) {
    throw exception(CDL_FILE_NAME, __LINE__, "json_writer: key outside an object or before a value");
  }
  if (!_first.back()) _out += ',';
  _first.back() = false;
  _out += '"';
  _out += safe_quote(name);
  _out += "\":";
  _scopes.back() = scope::object_value;
}

void json_writer::null_value() { raw_value("null"); }

void json_writer::raw_value(const std::string& json) {
  before_value();
  _out += json;
  after_value();
}

bool json_writer::complete() const { return _scopes.empty() && _root_written; }

std::string json_writer::take() {
  if (!complete()) throw exception(CDL_FILE_NAME, __LINE__, "json_writer: the document is not complete");
  std::string result = std::move(_out);
  _out.clear();
  _root_written = false;
  return result;
}

template <>
void json_writer::value<bool>(const bool& v, api_version_t<int>, print_type_t<int>) {
  raw_value(v ? "true" : "false");
}

template <>
void json_writer::value<std::string>(const std::string& v, api_version_t<int>, print_type_t<int>) {
  const std::string quoted = safe_quote(v);
  before_value();
  _out.append(1, '"').append(quoted).append(1, '"');
  after_value();
}

template <>
void json_writer::value<long>(const long& v, api_version_t<int>, print_type_t<int>) {
  raw_value(to_str(v));
}

template <>
void json_writer::value<double>(const double& v, api_version_t<int>, print_type_t<int>) {
  // JSON has no NaN or infinity.
  if (!std::isfinite(v)) {
    null_value();
    return;
  }
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.17g", v);
  raw_value(buffer);
}

json_object::~json_object() = default;

std::string json_object::to_json_str() const {
  json_writer writer;
  to_json(writer, {}, {});
  return writer.take();
}

}  // namespace cdl
