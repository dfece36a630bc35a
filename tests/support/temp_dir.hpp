// Temporary directories for tests, on the default temporary file system or
// on a small tmpfs mounted for the test (root only).
#pragma once

#include <string>

namespace faitra_test {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents on
// destruction.
class temp_dir {
 public:
  explicit temp_dir(const std::string& prefix = "faitra-test");
  ~temp_dir();
  temp_dir(const temp_dir&) = delete;
  temp_dir& operator=(const temp_dir&) = delete;

  const std::string& path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

// A tmpfs of `size_bytes` mounted on a fresh directory, unmounted on
// destruction. mounted() is false (and reason() says why) when the process
// may not mount, so callers can GTEST_SKIP.
class tmpfs_mount {
 public:
  explicit tmpfs_mount(unsigned long size_bytes);
  ~tmpfs_mount();
  tmpfs_mount(const tmpfs_mount&) = delete;
  tmpfs_mount& operator=(const tmpfs_mount&) = delete;

  bool mounted() const { return _mounted; }
  const std::string& reason() const { return _reason; }
  const std::string& path() const { return _dir.path(); }
  std::string file(const std::string& name) const { return _dir.file(name); }

 private:
  temp_dir _dir;
  bool _mounted = false;
  std::string _reason;
};

// Sets a user extended attribute; fails the current test on error.
void set_xattr(const std::string& path, const std::string& name, const std::string& value);

}  // namespace faitra_test
