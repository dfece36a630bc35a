#include <cdl/text.hpp>

#include <cctype>

namespace cdl {

char path_separator() { return '/'; }

std::string to_str(unsigned long value) { return std::to_string(value); }
std::string to_str(long value) { return std::to_string(value); }
std::string to_str(const std::string& value) { return value; }

namespace {

// The length of the well-formed UTF-8 sequence at `text[at]` (RFC 3629: no
// overlong forms, no surrogates, nothing above U+10FFFF), or 0.
size_t utf8_sequence_length(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80;  // bounds of the second byte
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong
    if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (at + length > text.size() || byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  }
  return length;
}

}  // namespace

std::string safe_quote(const std::string& text) {
  static const char HEX[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t at = 0; at < text.size();) {
    const auto c = static_cast<unsigned char>(text[at]);
    const size_t length = utf8_sequence_length(text, at);
    if (length == 0) {
      // Not UTF-8: the byte B becomes the lone surrogate U+DC00+B (B is
      // 0x80 to 0xFF), so the text stays valid UTF-8 and the bytes can be
      // restored exactly (docs/api.md, "Names that are not UTF-8").
      out += "\\udc";
      out += HEX[c >> 4];
      out += HEX[c & 0x0F];
      ++at;
      continue;
    }
    if (length > 1) {
      out.append(text, at, length);
    } else if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20) {
      out += "\\u00";
      out += HEX[c >> 4];
      out += HEX[c & 0x0F];
    } else {
      out += static_cast<char>(c);
    }
    at += length;
  }
  return out;
}

bool negative_number_str(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  return i + 1 < text.size() && text[i] == '-' && std::isdigit(static_cast<unsigned char>(text[i + 1]));
}

}  // namespace cdl
