// cdl::json_object: the base of objects that convert to and from JSON, and
// the small types its operations carry.
//
// from_json reads a parsed RapidJSON document and may collect validation
// errors; to_json writes through a cdl::json_writer. Both receive an API
// version and a print type that derived classes may use to vary the form.
//
// Thread-safety: as the derived object's.
#pragma once

#include <cdl/json_reader.hpp>
#include <cdl/json_writer.hpp>

#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace cdl {

struct validation_error {
  std::string field;
  std::string message;
};

// The errors found while reading one document, in the order found.
class validation_error_list {
 public:
  void add(std::string field, std::string message) { _errors.push_back({std::move(field), std::move(message)}); }
  bool empty() const { return _errors.empty(); }
  size_t size() const { return _errors.size(); }
  const std::vector<validation_error>& errors() const { return _errors; }

 private:
  std::vector<validation_error> _errors;
};

class json_object {
 public:
  virtual ~json_object();
  virtual void from_json(const rapidjson::Document& doc, validation_error_list& errors, api_version_t<int> version,
                         print_type_t<int> print, field_specs rules) = 0;
  virtual void to_json(json_writer& writer, api_version_t<int> version, print_type_t<int> print) const = 0;

  // Convenience: the object's JSON text with default version and print type.
  std::string to_json_str() const;
};

}  // namespace cdl
