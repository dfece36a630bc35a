#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace faitra_test {

temp_dir::temp_dir(const std::string& prefix) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed: " + std::string(std::strerror(errno)));
  }
  _path = pattern;
}

temp_dir::~temp_dir() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

tmpfs_mount::tmpfs_mount(unsigned long size_bytes) : _dir("faitra-tmpfs") {
  if (::geteuid() != 0) {
    _reason = "mounting a tmpfs needs root";
    return;
  }
  const std::string options = "size=" + std::to_string(size_bytes);
  if (::mount("tmpfs", _dir.path().c_str(), "tmpfs", 0, options.c_str()) != 0) {
    _reason = "mount(tmpfs) failed: " + std::string(std::strerror(errno));
    return;
  }
  _mounted = true;
}

tmpfs_mount::~tmpfs_mount() {
  if (_mounted) ::umount2(_dir.path().c_str(), MNT_DETACH);
}

void set_xattr(const std::string& path, const std::string& name, const std::string& value) {
  ASSERT_EQ(::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0), 0)
      << "setxattr(" << path << ", " << name << "): " << std::strerror(errno);
}

}  // namespace faitra_test
