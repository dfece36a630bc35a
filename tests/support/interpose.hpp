// Replacements for C library functions (support/interpose.cpp), linked only
// into the interposed test binary and the faitra_faulty command; they take
// precedence over the C library's for the binary and the libraries it loads.
// Each forwards to the C library unless armed:
//  - stat, getxattr, unlink, statvfs, inotify_init and read on the inotify
//    descriptor fail while their fault has calls left (on paths containing
//    its fragment, if it has one);
//  - statvfs reports `fake_disk` figures (blocks of FAKE_BLOCK) while set;
//  - sleep returns at once (unless instant_sleep is false);
//  - syslog is recorded instead of sent;
//  - unlink is recorded while a removal_watch lives.
// statvfs and sleep also append "statvfs" and "sleep N" to calls().
// Thread-safety: all of it may be used from any thread.
#pragma once

#include <csl/fs_cache.hpp>

#include <cdl/log.hpp>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace faitra_test {

class fault {
 public:
  void arm(const std::string& fragment, int count, int error);
  bool strikes(const char* path = nullptr);  // sets errno when it does

 private:
  std::mutex _mutex;
  std::string _fragment;
  std::atomic<int> _left{0};
  int _error = 0;
};
// inotify_overflow: a read of events gives the kernel's queue overflow event
// instead (the events read are lost).
enum class call { stat, getxattr, unlink, statvfs, inotify_init, inotify_read, inotify_overflow };
fault& fault_of(call c);
extern std::atomic<bool> instant_sleep;
extern std::atomic<long> fake_used, fake_total;  // blocks; fake_total < 0: the real figures
constexpr unsigned long FAKE_BLOCK = 4096;

// FAITRA_FAULT_{STAT,GETXATTR,UNLINK,STATVFS,INOTIFY_READ,INOTIFY_OVERFLOW}=
// [FRAGMENT:]COUNT arm faults (ENOENT, EIO, EBUSY, EIO, EIO, -); with FAITRA_FAULT_ARM=FILE they
// strike only while FILE exists; FAITRA_INSTANT_SLEEP makes sleep instant.
void arm_from_environment();

void note(const std::string& what);
std::vector<std::string> calls();
std::vector<unsigned> sleeps();

struct log_line {
  int priority;  // facility included
  std::string format, text;
};
std::vector<log_line> syslog_lines(const std::string& fragment = "");
bool wait_for_syslog(const std::string& fragment);
void clear_records();  // calls and syslog lines
// A debug-level log, "os - test - ...", that writes to syslog: recorded.
cdl::log* recorded_log();

// Removals while the watch lives: path, whether catalogued then, and marker.
struct removal {
  std::string path;
  bool catalogued;
  csl::fs_entry::deletion_by marked;
};
struct removal_watch {
  explicit removal_watch(csl::fs_cache& cache);
  ~removal_watch();  // before the catalogue goes
  static std::vector<removal> removals();
};

}  // namespace faitra_test
