#include <faitra/host/capture_attributes.hpp>

#include <cdl/exception.hpp>
#include <cdl/utils.hpp>

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

namespace faitra_host {

const char* const HASH_ATTRIBUTE = "user.pcap_hash";
const char* const START_ATTRIBUTE = "user.pcap_start_ts";
const char* const END_ATTRIBUTE = "user.pcap_end_ts";
const char* const CREATION_ATTRIBUTE = "user.pcap_creation_ts";

namespace {

constexpr uint64_t NS_PER_SECOND = 1000000000ULL;

// The value as the library's reader sees it: 1 to 255 bytes, up to a zero.
std::optional<std::string> raw_value(const std::string& path, const char* name) {
  char buffer[256];
  const ssize_t n = ::getxattr(path.c_str(), name, buffer, sizeof buffer);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof buffer) return std::nullopt;
  buffer[n] = '\0';
  return std::string(buffer);
}

template <typename T>
std::optional<T> number(const std::string& path, const char* name, std::vector<std::string>& malformed) {
  const std::optional<std::string> text = raw_value(path, name);
  if (!text) return std::nullopt;
  try {
    return cdl::from_str<T>(*text, nullptr, 10);
  } catch (const cdl::exception&) {
    malformed.push_back(std::string(name) + " \"" + text->substr(0, 40) + "\"");
    return std::nullopt;
  }
}

bool unsupported(int error) { return error == ENOTSUP || error == EPERM || error == EACCES || error == EROFS; }

}  // namespace

void attribute_values::fill_from(const attribute_values& other) {
  if (!key) key = other.key;
  if (!start_ns) start_ns = other.start_ns;
  if (!end_ns) end_ns = other.end_ns;
  if (!creation_s) creation_s = other.creation_s;
}

void attribute_values::apply_to(csl::fs_entry& record) const {
  if (key) record.key = cdl::nullable<std::string>(*key);
  if (start_ns) record.start_ts = cdl::nullable<unsigned long>(*start_ns);
  if (end_ns) record.end_ts = cdl::nullable<unsigned long>(*end_ns);
  if (creation_s) record.creation_ts = *creation_s;
}

attribute_values read_capture_attributes(const std::string& path) {
  attribute_values v;
  v.key = raw_value(path, HASH_ATTRIBUTE);
  v.start_ns = number<unsigned long>(path, START_ATTRIBUTE, v.malformed);
  v.end_ns = number<unsigned long>(path, END_ATTRIBUTE, v.malformed);
  v.creation_s = number<long>(path, CREATION_ATTRIBUTE, v.malformed);
  return v;
}

attribute_values derived_attributes(const capture_summary& summary) {
  attribute_values v;
  if (!summary.usable()) return v;
  v.key = summary.hash;
  v.start_ns = *summary.start_ns;
  v.end_ns = *summary.end_ns;
  v.creation_s = static_cast<int64_t>(*summary.start_ns / NS_PER_SECOND);
  return v;
}

write_outcome write_capture_attributes(const std::string& path, const attribute_values& values, std::string& error) {
  const std::pair<const char*, std::optional<std::string>> wanted[] = {
      {HASH_ATTRIBUTE, values.key},
      {START_ATTRIBUTE, values.start_ns ? std::optional<std::string>(std::to_string(*values.start_ns)) : std::nullopt},
      {END_ATTRIBUTE, values.end_ns ? std::optional<std::string>(std::to_string(*values.end_ns)) : std::nullopt},
      {CREATION_ATTRIBUTE,
       values.creation_s ? std::optional<std::string>(std::to_string(*values.creation_s)) : std::nullopt},
  };
  for (const auto& [name, value] : wanted) {
    if (!value) continue;
    if (::setxattr(path.c_str(), name, value->data(), value->size(), XATTR_CREATE) == 0) continue;
    const int e = errno;
    if (e == EEXIST) continue;  // a writer's value (or a malformed one): left as it is
    if (e == ENOENT) return write_outcome::vanished;
    error = std::string(name) + ": " + std::strerror(e);
    return unsupported(e) ? write_outcome::unsupported : write_outcome::failed;
  }
  return write_outcome::written;
}

}  // namespace faitra_host
