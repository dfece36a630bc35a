// Runs the time and duration parsers on any text.
//
// Input: the text, with `now` fixed. Properties: a refusal always comes
// with a message naming the problem; an accepted time or duration, written
// back in its canonical form, parses to the same value.
#include "fuzz_check.hpp"

#include <faitra/host/time_text.hpp>

#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  constexpr uint64_t NOW = 1795428120000000000ULL;
  std::string error;
  if (const auto ns = faitra_host::parse_time_ns(text, NOW, error)) {
    std::string again;
    FUZZ_CHECK(faitra_host::parse_time_ns(faitra_host::format_time_ns(*ns), 0, again) == ns);
  } else {
    FUZZ_CHECK(!error.empty());
  }
  error.clear();
  if (const auto ns = faitra_host::parse_duration_ns(text, error)) {
    std::string again;
    FUZZ_CHECK(faitra_host::parse_duration_ns(faitra_host::format_duration_ns(*ns), again) == ns);
  } else {
    FUZZ_CHECK(!error.empty());
  }
  return 0;
}
