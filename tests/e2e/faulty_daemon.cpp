// The faitra command with injectable system-call faults, for the daemon's
// fault tests. It is the real command (the same objects) plus these
// definitions, which take precedence over the C library's for the command
// and for the libraries it loads. Each forwards to the C library unless an
// environment variable arms a fault:
//
//   FAITRA_FAULT_STAT=FRAGMENT:COUNT     stat fails (ENOENT)
//   FAITRA_FAULT_GETXATTR=FRAGMENT:COUNT getxattr fails (EIO)
//   FAITRA_FAULT_UNLINK=FRAGMENT:COUNT   unlink fails (EBUSY)
//       for the first COUNT calls on a path containing FRAGMENT;
//   FAITRA_FAULT_STATVFS=COUNT           statvfs fails (EIO), any path;
//   FAITRA_FAULT_INOTIFY_READ=COUNT      read on the inotify descriptor
//                                        fails (EIO);
//   FAITRA_FAULT_INOTIFY_OVERFLOW=COUNT  a read of events from it gives the
//                                        kernel's queue overflow event
//                                        instead (the events are lost);
//   FAITRA_INSTANT_SLEEP=1               sleep returns at once (the
//                                        cleaner's pauses cost nothing).
//
// With FAITRA_FAULT_ARM=FILE set, faults strike only while FILE exists, so
// that a test can aim one at a moment (a rewrite of a catalogued capture)
// rather than at the first calls.
#include <dlfcn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

template <typename F>
F next_symbol(const char* name) {
  return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

// A fault armed from the environment: `left` more calls fail, on paths that
// contain `fragment` (any path when the variable gives no fragment).
class fault {
 public:
  explicit fault(const char* variable) {
    const char* value = std::getenv(variable);
    if (value == nullptr) return;
    const std::string setting = value;
    const size_t colon = setting.rfind(':');
    _fragment = colon == std::string::npos ? "" : setting.substr(0, colon);
    _left = std::atoi(colon == std::string::npos ? value : value + colon + 1);
  }

  // Whether this call fails; counts it down.
  bool strikes(const char* path = nullptr) {
    if (_left.load() <= 0) return false;
    if (!_fragment.empty() && (path == nullptr || std::strstr(path, _fragment.c_str()) == nullptr)) return false;
    if (!armed()) return false;
    return _left.fetch_sub(1) > 0;
  }

 private:
  static bool armed() {
    static const char* const arm_file = std::getenv("FAITRA_FAULT_ARM");
    return arm_file == nullptr || ::access(arm_file, F_OK) == 0;
  }

  std::string _fragment;
  std::atomic<int> _left{0};
};

fault& stat_fault() {
  static fault f("FAITRA_FAULT_STAT");
  return f;
}
fault& getxattr_fault() {
  static fault f("FAITRA_FAULT_GETXATTR");
  return f;
}
fault& unlink_fault() {
  static fault f("FAITRA_FAULT_UNLINK");
  return f;
}
fault& statvfs_fault() {
  static fault f("FAITRA_FAULT_STATVFS");
  return f;
}
fault& inotify_read_fault() {
  static fault f("FAITRA_FAULT_INOTIFY_READ");
  return f;
}

fault& inotify_overflow_fault() {
  static fault f("FAITRA_FAULT_INOTIFY_OVERFLOW");
  return f;
}

std::atomic<int> inotify_descriptor{-1};

}  // namespace

extern "C" int stat(const char* __restrict path, struct stat* __restrict buf) noexcept {
  static const auto real = next_symbol<int (*)(const char*, struct stat*)>("stat");
  if (stat_fault().strikes(path)) {
    errno = ENOENT;
    return -1;
  }
  return real(path, buf);
}

extern "C" ssize_t getxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  static const auto real = next_symbol<ssize_t (*)(const char*, const char*, void*, size_t)>("getxattr");
  if (getxattr_fault().strikes(path)) {
    errno = EIO;
    return -1;
  }
  return real(path, name, value, size);
}

extern "C" int unlink(const char* path) noexcept {
  static const auto real = next_symbol<int (*)(const char*)>("unlink");
  if (unlink_fault().strikes(path)) {
    errno = EBUSY;
    return -1;
  }
  return real(path);
}

extern "C" int statvfs(const char* __restrict path, struct statvfs* __restrict buf) noexcept {
  static const auto real = next_symbol<int (*)(const char*, struct statvfs*)>("statvfs");
  if (statvfs_fault().strikes()) {
    errno = EIO;
    return -1;
  }
  return real(path, buf);
}

extern "C" int inotify_init() noexcept {
  static const auto real = next_symbol<int (*)()>("inotify_init");
  const int fd = real();
  inotify_descriptor.store(fd);
  return fd;
}

extern "C" ssize_t read(int fd, void* buf, size_t n) {
  static const auto real = next_symbol<ssize_t (*)(int, void*, size_t)>("read");
  if (fd >= 0 && fd == inotify_descriptor.load() && inotify_read_fault().strikes()) {
    errno = EIO;
    return -1;
  }
  const ssize_t got = real(fd, buf, n);
  if (got > 0 && fd == inotify_descriptor.load() && inotify_overflow_fault().strikes()) {
    inotify_event overflow{};
    overflow.wd = -1;
    overflow.mask = IN_Q_OVERFLOW;
    std::memcpy(buf, &overflow, sizeof overflow);
    return sizeof overflow;
  }
  return got;
}

extern "C" unsigned int sleep(unsigned int seconds) {
  static const bool instant = std::getenv("FAITRA_INSTANT_SLEEP") != nullptr;
  static const auto real = next_symbol<unsigned int (*)(unsigned int)>("sleep");
  return instant ? 0 : real(seconds);
}
