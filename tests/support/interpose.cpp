// The replacements declared in support/interpose.hpp. Their state is reached
// through a never-destroyed static, so calls during static initialisation or
// from threads that outlive main find it.
#undef _FORTIFY_SOURCE

#include "support/interpose.hpp"

#include "support/wait.hpp"

#include <dlfcn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <tuple>

namespace faitra_test {
namespace {

template <typename F>
F next(const char* name) {
  return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

struct state {
  std::mutex mutex;
  std::string arm_file;
  std::vector<std::string> calls;
  std::vector<log_line> lines;
  std::vector<removal> removals;
  std::atomic<csl::fs_cache*> watched{nullptr};
  std::atomic<int> inotify_fd{-1};
  fault faults[7];
};
state& s() {
  static state* const instance = new state;
  return *instance;
}

void record_removal(const char* path) {
  csl::fs_cache* cache = s().watched.load();
  if (cache == nullptr) return;
  csl::fs_entry entry;
  const bool catalogued = cache->by_path(entry, path);
  const std::lock_guard<std::mutex> lock(s().mutex);
  s().removals.push_back({path, catalogued, entry.deletion.load()});
}

}  // namespace

std::atomic<bool> instant_sleep{true};
std::atomic<long> fake_used{0}, fake_total{-1};

void fault::arm(const std::string& fragment, int count, int error) {
  const std::lock_guard<std::mutex> lock(_mutex);
  _fragment = fragment;
  _error = error;
  _left = count;
}

bool fault::strikes(const char* path) {
  if (_left.load() <= 0) return false;
  const std::lock_guard<std::mutex> lock(_mutex);
  if (!_fragment.empty() && (path == nullptr || std::strstr(path, _fragment.c_str()) == nullptr)) return false;
  if (!s().arm_file.empty() && ::access(s().arm_file.c_str(), F_OK) != 0) return false;
  if (_left.fetch_sub(1) <= 0) return false;
  errno = _error;
  return true;
}

fault& fault_of(call c) { return s().faults[static_cast<int>(c)]; }

void arm_from_environment() {
  const std::tuple<const char*, call, int> settings[] = {
      {"FAITRA_FAULT_STAT", call::stat, ENOENT},       {"FAITRA_FAULT_GETXATTR", call::getxattr, EIO},
      {"FAITRA_FAULT_UNLINK", call::unlink, EBUSY},    {"FAITRA_FAULT_STATVFS", call::statvfs, EIO},
      {"FAITRA_FAULT_INOTIFY_READ", call::inotify_read, EIO},
      {"FAITRA_FAULT_INOTIFY_OVERFLOW", call::inotify_overflow, 0}};
  for (const auto& [variable, which, error] : settings) {
    const char* value = std::getenv(variable);
    if (value == nullptr) continue;
    const std::string text = value;
    const size_t colon = text.rfind(':');
    const std::string count = colon == std::string::npos ? text : text.substr(colon + 1);
    fault_of(which).arm(colon == std::string::npos ? "" : text.substr(0, colon), std::stoi(count), error);
  }
  if (const char* file = std::getenv("FAITRA_FAULT_ARM")) s().arm_file = file;
  instant_sleep = std::getenv("FAITRA_INSTANT_SLEEP") != nullptr;
}

cdl::log* recorded_log() {
  static cdl::log* const log =
      new cdl::log(cdl::log_type::os, cdl::log_facility::local0, "test", cdl::log_priority::debug, false);
  return log;
}

void note(const std::string& what) {
  const std::lock_guard<std::mutex> lock(s().mutex);
  s().calls.push_back(what);
}
std::vector<std::string> calls() {
  const std::lock_guard<std::mutex> lock(s().mutex);
  return s().calls;
}
std::vector<unsigned> sleeps() {
  std::vector<unsigned> out;
  for (const std::string& c : calls()) {
    if (c.starts_with("sleep ")) out.push_back(static_cast<unsigned>(std::stoul(c.substr(6))));
  }
  return out;
}

std::vector<log_line> syslog_lines(const std::string& fragment) {
  const std::lock_guard<std::mutex> lock(s().mutex);
  std::vector<log_line> out;
  for (const log_line& line : s().lines) {
    if (line.text.find(fragment) != std::string::npos) out.push_back(line);
  }
  return out;
}
bool wait_for_syslog(const std::string& fragment) {
  return wait_until([&] { return !syslog_lines(fragment).empty(); });
}
void clear_records() {
  const std::lock_guard<std::mutex> lock(s().mutex);
  s().calls.clear();
  s().lines.clear();
}

removal_watch::removal_watch(csl::fs_cache& cache) {
  {
    const std::lock_guard<std::mutex> lock(s().mutex);
    s().removals.clear();
  }
  s().watched = &cache;
}
removal_watch::~removal_watch() { s().watched = nullptr; }
std::vector<removal> removal_watch::removals() {
  const std::lock_guard<std::mutex> lock(s().mutex);
  return s().removals;
}

}  // namespace faitra_test

using faitra_test::call;
using faitra_test::fault_of;

extern "C" int stat(const char* __restrict path, struct stat* __restrict buf) noexcept {
  static const auto real = faitra_test::next<int (*)(const char*, struct stat*)>("stat");
  return fault_of(call::stat).strikes(path) ? -1 : real(path, buf);
}

extern "C" ssize_t getxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  static const auto real = faitra_test::next<ssize_t (*)(const char*, const char*, void*, size_t)>("getxattr");
  return fault_of(call::getxattr).strikes(path) ? -1 : real(path, name, value, size);
}

extern "C" int unlink(const char* path) noexcept {
  static const auto real = faitra_test::next<int (*)(const char*)>("unlink");
  faitra_test::record_removal(path);
  return fault_of(call::unlink).strikes(path) ? -1 : real(path);
}

extern "C" int statvfs(const char* __restrict path, struct statvfs* __restrict buf) noexcept {
  static const auto real = faitra_test::next<int (*)(const char*, struct statvfs*)>("statvfs");
  faitra_test::note("statvfs");
  if (fault_of(call::statvfs).strikes()) return -1;
  const long total = faitra_test::fake_total.load();
  if (total < 0) return real(path, buf);
  std::memset(buf, 0, sizeof *buf);
  buf->f_bsize = buf->f_frsize = faitra_test::FAKE_BLOCK;
  buf->f_blocks = static_cast<unsigned long>(total);
  buf->f_bfree = static_cast<unsigned long>(total - faitra_test::fake_used.load());
  return 0;
}

extern "C" int inotify_init() noexcept {
  static const auto real = faitra_test::next<int (*)()>("inotify_init");
  const int fd = fault_of(call::inotify_init).strikes() ? -1 : real();
  faitra_test::s().inotify_fd = fd;
  return fd;
}

extern "C" ssize_t read(int fd, void* buf, size_t n) {
  static const auto real = faitra_test::next<ssize_t (*)(int, void*, size_t)>("read");
  const bool inotify = fd >= 0 && fd == faitra_test::s().inotify_fd.load();
  if (inotify && fault_of(call::inotify_read).strikes()) return -1;
  const ssize_t got = real(fd, buf, n);
  if (got <= 0 || !inotify || !fault_of(call::inotify_overflow).strikes()) return got;
  inotify_event overflow{};
  overflow.wd = -1;
  overflow.mask = IN_Q_OVERFLOW;
  std::memcpy(buf, &overflow, sizeof overflow);
  return sizeof overflow;
}

extern "C" unsigned int sleep(unsigned int seconds) {
  static const auto real = faitra_test::next<unsigned int (*)(unsigned int)>("sleep");
  faitra_test::note("sleep " + std::to_string(seconds));
  return faitra_test::instant_sleep ? 0 : real(seconds);
}

// Weak: the command's JSON log (linked into faitra_faulty) brings a syslog of
// its own, which then takes precedence.
extern "C" __attribute__((weak)) void syslog(int priority, const char* format, ...) {
  char text[8192];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  const std::lock_guard<std::mutex> lock(faitra_test::s().mutex);
  faitra_test::s().lines.push_back({priority, format, text});
}
