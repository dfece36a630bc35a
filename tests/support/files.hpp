// Files for tests: scratch directories, a small tmpfs, captures written the
// way the capture writer writes them, and catalogue records in one
// expression. Every helper throws std::runtime_error on a failed system call.
#pragma once

#include <csl/fs_entry.hpp>

#include <fcntl.h>
#include <sys/mount.h>
#undef BLOCK_SIZE  // <linux/fs.h>'s, which would break csl::node_arena::BLOCK_SIZE
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace faitra_test {

inline void check(bool ok, const char* what, const std::string& path) {
  if (!ok) throw std::runtime_error(std::string(what) + "(" + path + "): " + std::strerror(errno));
}

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class temp_dir {
 public:
  explicit temp_dir(const std::string& prefix = "faitra-test") {
    const char* base = std::getenv("TMPDIR");
    _path = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    check(::mkdtemp(_path.data()) != nullptr, "mkdtemp", _path);
  }
  ~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  temp_dir(const temp_dir&) = delete;
  temp_dir& operator=(const temp_dir&) = delete;
  const std::string& path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

// A tmpfs of `bytes` on a fresh directory; mounted() is false, and reason()
// says why, when the process may not mount (callers skip the test).
class tmpfs_mount : public temp_dir {
 public:
  explicit tmpfs_mount(unsigned long bytes) : temp_dir("faitra-tmpfs") {
    if (::mount("tmpfs", path().c_str(), "tmpfs", 0, ("size=" + std::to_string(bytes)).c_str()) != 0) {
      _reason = std::string("mounting a tmpfs failed (needs root): ") + std::strerror(errno);
    }
  }
  ~tmpfs_mount() {
    if (mounted()) ::umount2(path().c_str(), MNT_DETACH);
  }
  bool mounted() const { return _reason.empty(); }
  const std::string& reason() const { return _reason; }

 private:
  std::string _reason;
};

inline bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// Writes `size` bytes to `path` (created or truncated) and closes it.
inline void write_and_close(const std::string& path, unsigned long size) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  check(fd >= 0, "open", path);
  const std::string chunk(4096, 'p');
  for (ssize_t n = 0; size > 0; size -= static_cast<unsigned long>(n)) {
    n = ::write(fd, chunk.data(), size < chunk.size() ? size : chunk.size());
    check(n > 0, "write", path);
  }
  check(::close(fd) == 0, "close", path);
}

inline void set_xattr(const std::string& path, const std::string& name, const std::string& value) {
  check(::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0, "setxattr", path);
}

// Hash, first and last packet (nanoseconds) and creation second of a
// capture; absent timestamps are not written.
struct capture_attributes {
  std::string hash;
  std::optional<unsigned long> start_ts, end_ts;
  long creation_ts;
};

// The attributes used throughout: hash "h<n>" (or `hash`), first packet at
// n s, last at n s + 0.5 s, created at second n.
inline capture_attributes attributes(unsigned long n, const std::string& hash = "") {
  return {hash.empty() ? "h" + std::to_string(n) : hash, n * 1000000000UL, n * 1000000000UL + 500000000UL,
          static_cast<long>(n)};
}

// Reopens `path`, sets the attributes on the descriptor and closes it: the
// second close, which brings the attributes in.
inline void set_capture_attributes(const std::string& path, const capture_attributes& a) {
  const int fd = ::open(path.c_str(), O_WRONLY);
  check(fd >= 0, "open", path);
  auto set = [&](const char* name, const std::string& value) {
    check(::fsetxattr(fd, name, value.data(), value.size(), 0) == 0, "fsetxattr", path);
  };
  set("user.pcap_hash", a.hash);
  if (a.start_ts) set("user.pcap_start_ts", std::to_string(*a.start_ts));
  if (a.end_ts) set("user.pcap_end_ts", std::to_string(*a.end_ts));
  set("user.pcap_creation_ts", std::to_string(a.creation_ts));
  check(::close(fd) == 0, "close", path);
}

// Create, write, close; reopen, set the attributes, close.
inline void write_capture(const std::string& path, unsigned long size, const capture_attributes& a) {
  write_and_close(path, size);
  set_capture_attributes(path, a);
}

// A catalogue record in one expression.
inline csl::fs_entry record(std::string path, std::optional<std::string> key, unsigned long creation,
                            std::optional<unsigned long> start, std::optional<unsigned long> end,
                            unsigned long size = 0) {
  csl::fs_entry e(std::move(path));
  if (key) e.key = *key;
  e.creation_ts = creation;
  if (start) e.start_ts = *start;
  if (end) e.end_ts = *end;
  e.file_size = size;
  return e;
}

}  // namespace faitra_test
