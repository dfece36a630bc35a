// The library's rules for writing values through cdl::json_writer:
// unsigned numbers as plain decimal text, strings quoted with
// cdl::safe_quote, nullable values as null when null.
#pragma once

#include <cdl/json_writer.hpp>
#include <cdl/nullable.hpp>
#include <cdl/text.hpp>

#include <string>

namespace cdl {

template <>
inline void json_writer::value<unsigned long>(const unsigned long& v, api_version_t<int>, print_type_t<int>) {
  raw_value(to_str(v));
}

template <>
inline void json_writer::value<nullable<unsigned long>>(const nullable<unsigned long>& v, api_version_t<int> version,
                                                       print_type_t<int> print) {
  if (v.is_null()) {
    null_value();
  } else {
    value<unsigned long>(*v, version, print);
  }
}

template <>
inline void json_writer::value<nullable<std::string>>(const nullable<std::string>& v, api_version_t<int>,
                                                     print_type_t<int>) {
  if (v.is_null()) {
    null_value();
  } else {
    // Built by appending: GCC 12 misreads `"\"" + std::string&&` in optimised
    // builds (-Wrestrict false positive).
    const std::string quoted = safe_quote(to_str(*v));
    std::string json;
    json.reserve(quoted.size() + 2);
    json.append(1, '"').append(quoted).append(1, '"');
    raw_value(json);
  }
}

}  // namespace cdl
