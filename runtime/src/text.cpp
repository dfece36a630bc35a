#include <cdl/text.hpp>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cctype>

namespace cdl {

char path_separator() { return '/'; }

std::string to_str(unsigned long value) { return std::to_string(value); }
std::string to_str(long value) { return std::to_string(value); }
std::string to_str(const std::string& value) { return value; }

std::string safe_quote(const std::string& text) {
  // RapidJSON's writer escapes exactly what JSON requires and passes other
  // bytes through; strip the quotes it adds around the string.
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  const std::string quoted(buffer.GetString(), buffer.GetSize());
  return quoted.substr(1, quoted.size() - 2);
}

bool negative_number_str(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  return i + 1 < text.size() && text[i] == '-' && std::isdigit(static_cast<unsigned char>(text[i + 1]));
}

}  // namespace cdl
