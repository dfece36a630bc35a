#include <faitra/host/escaped_bytes.hpp>

namespace faitra_host {

namespace {

// Whether text[at..at+2] is the generalised UTF-8 of U+DC80..U+DCFF:
// ED, then B2 or B3, then a continuation byte.
bool escaped_byte_at(const std::string& text, size_t at) {
  if (at + 3 > text.size()) return false;
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  return byte(at) == 0xED && (byte(at + 1) == 0xB2 || byte(at + 1) == 0xB3) && (byte(at + 2) & 0xC0) == 0x80;
}

}  // namespace

std::string restore_escaped_bytes(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    if (escaped_byte_at(text, at)) {
      const auto second = static_cast<unsigned char>(text[at + 1]);
      const auto third = static_cast<unsigned char>(text[at + 2]);
      out += static_cast<char>(0x80 | ((second & 0x01) << 6) | (third & 0x3F));
      at += 3;
    } else {
      out += text[at++];
    }
  }
  return out;
}

bool has_escaped_bytes(const std::string& text) {
  for (size_t at = 0; at < text.size(); ++at) {
    if (escaped_byte_at(text, at)) return true;
  }
  return false;
}

}  // namespace faitra_host
