// Loads the four capture attributes of a real file whose attribute values
// are taken from the input.
//
// Input layout, repeated for the hash, start, end and creation attributes:
// two bytes (little endian) of which the top bit means "absent" and the rest,
// modulo 320, is the value's length, then the value itself (cut short where
// the input ends). Lengths from 256 up exercise the reader's 255-byte
// ceiling.
//
// Allowed outcomes: the record is loaded; cdl::unrecognized_value_error or
// cdl::not_in_range_error from a numeric attribute that is not a number or
// out of range. Properties: a hash value of 1 to 255 bytes is the record's
// key up to its first zero byte, any other hash reads as absent, and the
// result is whether the key is set.
#include "fuzz_check.hpp"

#include <csl/fs_reader.hpp>

#include <cdl/exception.hpp>

#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>

namespace {

const char* const ATTRIBUTES[] = {"user.pcap_hash", "user.pcap_start_ts", "user.pcap_end_ts", "user.pcap_creation_ts"};

// A capture file in a fresh directory, removed at exit.
struct scratch_file {
  std::string dir;
  std::string path;

  scratch_file() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/faitra-xattr-fuzz-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) fail("mkdtemp");
    dir = pattern;
    path = dir + "/capture.pcap";
    std::ofstream(path) << "capture";
    if (::setxattr(path.c_str(), ATTRIBUTES[0], "x", 1, 0) != 0) fail("setxattr (user attributes unsupported here?)");
  }
  ~scratch_file() {
    ::unlink(path.c_str());
    ::rmdir(dir.c_str());
  }
  [[noreturn]] static void fail(const char* what) {
    std::fprintf(stderr, "xattr_fuzz: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
  }
};

scratch_file& scratch() {
  static scratch_file file;
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = scratch().path;
  std::optional<std::string> values[4];
  size_t at = 0;
  for (int i = 0; i < 4; ++i) {
    unsigned header = 0x8000;  // absent once the input runs out
    if (at + 2 <= size) header = data[at] | (data[at + 1] << 8);
    at = std::min(at + 2, size);
    if ((header & 0x8000) != 0) {
      ::removexattr(path.c_str(), ATTRIBUTES[i]);
      continue;
    }
    const size_t length = std::min<size_t>((header & 0x7fff) % 320, size - at);
    values[i] = std::string(reinterpret_cast<const char*>(data) + at, length);
    at += length;
    if (::setxattr(path.c_str(), ATTRIBUTES[i], values[i]->data(), values[i]->size(), 0) != 0) {
      scratch_file::fail("setxattr");
    }
  }

  csl::fs_reader reader([](const std::string&) { return true; }, 0, ATTRIBUTES[0], ATTRIBUTES[1], ATTRIBUTES[2],
                        ATTRIBUTES[3], nullptr, nullptr);
  csl::fs_entry record(path);
  bool loaded = false;
  try {
    loaded = reader.load_extended_attributes(record);
  } catch (const cdl::unrecognized_value_error&) {
    FUZZ_CHECK(values[1] || values[2] || values[3]);
  } catch (const cdl::not_in_range_error&) {
    FUZZ_CHECK(values[1] || values[2] || values[3]);
  }

  // The hash is read first, so it is set even when a later attribute raised.
  const std::optional<std::string>& hash = values[0];
  if (hash && !hash->empty() && hash->size() < csl::fs_reader::XATTR_BUFFER_SIZE) {
    FUZZ_CHECK(!record.key.is_null());
    FUZZ_CHECK(*record.key == hash->substr(0, hash->find('\0')));
  } else {
    FUZZ_CHECK(record.key.is_null());
  }
  if (loaded) FUZZ_CHECK(!record.key.is_null());
  return 0;
}
