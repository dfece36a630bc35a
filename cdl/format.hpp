// cdl::format_str: printf-style formatting into a new std::string.
//
// String objects are passed to the formatter as their character pointer;
// every other argument is passed as it is (floats are promoted to double and
// bools to int by the variadic call). The text always goes through the
// formatter, also with no arguments, so "%%" becomes "%".
//
// Thread-safety: stateless; callable from any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>

namespace cdl {
namespace impl {

template <typename A>
decltype(auto) format_arg(const A& arg) {
  if constexpr (std::is_same_v<A, std::string>) {
    return arg.c_str();
  } else {
    return (arg);
  }
}

}  // namespace impl

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... Args>
std::string format_str(const std::string& fmt, const Args&... args) {
  const int32_t size = std::snprintf(nullptr, 0, fmt.c_str(), impl::format_arg(args)...) + 1;
  if (size <= 0) return {};
  auto buffer = std::make_unique<char[]>(static_cast<size_t>(size));
  std::snprintf(buffer.get(), static_cast<size_t>(size), fmt.c_str(), impl::format_arg(args)...);
  return std::string(buffer.get(), buffer.get() + size - 1);
}
#pragma GCC diagnostic pop

}  // namespace cdl
