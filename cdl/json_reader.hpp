// Reading typed fields out of a parsed RapidJSON document.
//
// The getters decide what counts as absent (false), null (true with
// *is_null set) and of the wrong type (cdl::unexpected_type_error). An array
// given as the document is a caller error (assertion). set_from_json stores
// the value into its target and raises cdl::missing_field_error when a
// mandatory field is absent. A JSON null is never "missing".
//
// Thread-safety: pure functions over the caller's document and target.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/nullable.hpp>
#include <cdl/utils.hpp>

#include <rapidjson/document.h>

#include <cstdint>
#include <string>

namespace cdl {

// Flags describing one field: bit 0 marks the field mandatory, bit 1 marks
// every field mandatory.
using field_spec = uint32_t;
constexpr field_spec FIELD_MANDATORY = 1u << 0;
constexpr field_spec FIELD_MANDATORY_ALL = 1u << 1;

class field_specs {
 public:
  field_specs(field_spec flags = 0) : _flags(flags) {}  // NOLINT: implicit by design
  bool mandatory_all() const { return (_flags & FIELD_MANDATORY_ALL) != 0; }
  bool mandatory() const { return mandatory_all() || (_flags & FIELD_MANDATORY) != 0; }
  field_spec value() const { return _flags; }

 private:
  field_spec _flags;
};

namespace impl {

// Returns the field named `key` of `value` (or `value` itself for an empty
// key), or null when it cannot be read; raises for an array document.
template <typename Doc>
const rapidjson::Value* find_json_field(const Doc& value, const std::string& key, unsigned long array_line) {
  if (value.IsNull()) return nullptr;
  if (value.IsArray()) throw_assert(CDL_FILE_NAME, array_line, "The input must not be an array.");
  if (key.empty()) return &value;
  if (!value.IsObject()) return nullptr;
  const auto member = value.FindMember(key.c_str());
  if (member == value.MemberEnd()) return nullptr;
  return &member->value;
}

// Shared steps 4 and 5 of the getters; returns false when the field is null
// and the caller gave no is_null pointer.
inline bool json_field_null(const rapidjson::Value& field, bool* is_null, bool& result) {
  if (!field.IsNull()) return false;
  if (is_null == nullptr) {
    result = false;
  } else {
    *is_null = true;
    result = true;
  }
  return true;
}

template <typename Doc>
bool get_str_from_json(std::string& out, const Doc& value, const std::string& key, bool* is_null) {
  const rapidjson::Value* field = find_json_field(value, key, 307);
  if (field == nullptr) return false;
  bool result = false;
  if (json_field_null(*field, is_null, result)) return result;
  if (!field->IsString()) throw unexpected_type_error(CDL_FILE_NAME, 324, "The %s field must be a string.", key.c_str());
  if (is_null != nullptr) *is_null = false;
  out.assign(field->GetString(), field->GetStringLength());
  return true;
}

template <typename Doc>
bool get_unsigned_from_json(unsigned long& out, const Doc& value, const std::string& key, bool* is_null) {
  const rapidjson::Value* field = find_json_field(value, key, 236);
  if (field == nullptr) return false;
  bool result = false;
  if (json_field_null(*field, is_null, result)) return result;
  if (!field->IsUint64()) throw unexpected_type_error(CDL_FILE_NAME, 253, "The %s field must be unsigned.", key.c_str());
  if (is_null != nullptr) *is_null = false;
  out = field->GetUint64();
  return true;
}

template <typename Doc>
bool get_bool_from_json(bool& out, const Doc& value, const std::string& key, bool* is_null) {
  const rapidjson::Value* field = find_json_field(value, key, 343);
  if (field == nullptr) return false;
  bool result = false;
  if (json_field_null(*field, is_null, result)) return result;
  if (!field->IsBool()) throw unexpected_type_error(CDL_FILE_NAME, 360, "The %s field must be a boolean.", key.c_str());
  if (is_null != nullptr) *is_null = false;
  out = field->GetBool();
  return true;
}

template <typename T>
struct json_getter;
template <>
struct json_getter<std::string> {
  template <typename Doc>
  static bool get(std::string& out, const Doc& doc, const std::string& key, bool* is_null) {
    return get_str_from_json(out, doc, key, is_null);
  }
  static void store(std::string& out, std::string&& value) { out = std::move(value); }
  static void missing(const std::string& key) {
    throw missing_field_error(CDL_FILE_NAME, 839, "The %s field is missing.", key.c_str());
  }
};
template <>
struct json_getter<bool> {
  template <typename Doc>
  static bool get(bool& out, const Doc& doc, const std::string& key, bool* is_null) {
    return get_bool_from_json(out, doc, key, is_null);
  }
  static void store(bool& out, bool value) { out = value; }
  static void missing(const std::string& key) {
    throw missing_field_error(CDL_FILE_NAME, 965, "The %s field is missing.", key.c_str());
  }
};
template <>
struct json_getter<unsigned long> {
  template <typename Doc>
  static bool get(unsigned long& out, const Doc& doc, const std::string& key, bool* is_null) {
    return get_unsigned_from_json(out, doc, key, is_null);
  }
  static void store(unsigned long& out, unsigned long value) { out = numeric_cast<unsigned long>(value); }
  static void missing(const std::string& key) {
    throw missing_field_error(CDL_FILE_NAME, 1021, "The key is missing: %s.", key.c_str());
  }
};

template <typename T, typename Doc>
bool set_from_json_impl(T& out, const Doc& doc, const std::string& key, field_specs rules, bool* is_null) {
  T temporary{};
  if (json_getter<T>::get(temporary, doc, key, is_null)) {
    if (is_null != nullptr && *is_null) return true;
    json_getter<T>::store(out, std::move(temporary));
    return true;
  }
  if (rules.mandatory()) json_getter<T>::missing(key);
  return false;
}

}  // namespace impl

template <typename T, typename Doc>
bool set_from_json(T& out, const Doc& doc, const std::string& key, field_specs rules = field_specs(),
                   bool* is_null = nullptr) {
  return impl::set_from_json_impl(out, doc, key, rules, is_null);
}

// A JSON null makes `out` null, a value makes it set, an absent optional
// field leaves it as it was.
template <typename T, typename Doc>
bool set_from_json(nullable<T>& out, const Doc& doc, const std::string& key, field_specs rules = field_specs()) {
  bool is_null = out.is_null();
  const bool result = impl::set_from_json_impl(*out, doc, key, rules, &is_null);
  out.set_null(is_null);
  return result;
}

}  // namespace cdl
