// Hard limit: a writer filling a small tmpfs under the daemon at a given
// pace, and the highest usage the file system reached.
//
//   hard_limit_bench FAITRA on|off RATE_MB_S [SECONDS] [DISK_MIB] [CAPTURE_MIB]
//
// Mounts a tmpfs of DISK_MIB (default 128), starts `FAITRA serve` on it
// (trigger 0.9, stop 0.8; "on": --hard-limit 0.97, "off": --hard-limit off,
// so only the automatic cleanup with its 15 s pauses acts) and writes
// captures of CAPTURE_MIB (default 4) for SECONDS (default 20) in 64 KiB
// chunks paced to RATE_MB_S (0: as fast as the file system takes them), the
// way a capture writer does: create, write, close, reopen, set the
// attributes, close. A chunk that does not fit (ENOSPC) is lost, as a
// capture writer loses its packets; the partial file is removed and the
// writer goes on with the next capture. A sampler reads statvfs every
// 100 us. Prints one JSON object: the highest fraction in use seen, the
// samples at 100 %, the bytes written and lost, and the pace achieved.
#include "bench_support.hpp"

#include <signal.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>

namespace {

using faitra_bench::check;
using faitra_bench::now_ns;

constexpr size_t CHUNK = 64 * 1024;
constexpr double MiB = 1024.0 * 1024.0;

struct figures {
  std::atomic<double> highest{0};
  std::atomic<unsigned long> full_samples{0};
  std::atomic<unsigned long> samples{0};
};

double usage(const std::string& dir) {
  struct statvfs s {};
  if (::statvfs(dir.c_str(), &s) != 0 || s.f_blocks == 0) return 0;
  return static_cast<double>(s.f_blocks - s.f_bfree) / static_cast<double>(s.f_blocks);
}

void sample(const std::string& dir, figures& f, const std::atomic<bool>& stop) {
  while (!stop.load()) {
    const double u = usage(dir);
    if (u > f.highest.load()) f.highest.store(u);
    if (u >= 1.0) f.full_samples.fetch_add(1);
    f.samples.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
}

pid_t start_daemon(const std::string& faitra, const std::string& root, const std::string& log, bool hard_limit) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    ::execl(faitra.c_str(), faitra.c_str(), "serve", "--root", root.c_str(), "--log-stdout", "--listen",
            "127.0.0.1:0", "--trigger", "0.9", "--stop", "0.8", "--hard-limit", hard_limit ? "0.97" : "off",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: hard_limit_bench FAITRA on|off RATE_MB_S [SECONDS] [DISK_MIB] [CAPTURE_MIB]\n");
    return 2;
  }
  const std::string faitra = argv[1];
  const bool hard_limit = std::string(argv[2]) == "on";
  const double rate = std::stod(argv[3]) * 1e6;  // bytes per second; 0: unpaced
  const double seconds = argc > 4 ? std::stod(argv[4]) : 20;
  const unsigned long disk_mib = argc > 5 ? std::stoul(argv[5]) : 128;
  const unsigned long capture_bytes = (argc > 6 ? std::stoul(argv[6]) : 4) << 20;

  char dir_template[] = "/tmp/faitra-hard-limit-XXXXXX";
  check(::mkdtemp(dir_template) != nullptr, "mkdtemp");
  const std::string root = dir_template;
  const std::string options = "size=" + std::to_string(disk_mib) + "m";
  check(::mount("tmpfs", root.c_str(), "tmpfs", 0, options.c_str()) == 0,
        std::string("mount tmpfs (root needed): ") + std::strerror(errno));
  char log_template[] = "/tmp/faitra-hard-limit-log-XXXXXX";
  const int log_fd = ::mkstemp(log_template);
  ::close(log_fd);
  const std::string log = log_template;

  const pid_t daemon = start_daemon(faitra, root, log, hard_limit);
  const uint64_t ready_deadline = now_ns() + 60000000000ULL;
  while (read_file(log).find("Listening on") == std::string::npos) {
    check(now_ns() < ready_deadline && ::waitpid(daemon, nullptr, WNOHANG) == 0, "the daemon did not start: " + read_file(log));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }

  figures f;
  std::atomic<bool> stop{false};
  std::thread sampler(sample, root, std::ref(f), std::cref(stop));

  const std::string chunk(CHUNK, 'p');
  unsigned long written = 0, lost = 0, captures = 0, lost_captures = 0;
  const uint64_t begin = now_ns();
  const uint64_t end = begin + static_cast<uint64_t>(seconds * 1e9);
  const uint64_t first_packet = 1700000000ULL * 1000000000ULL;
  while (now_ns() < end) {
    const std::string path = root + "/capture-" + std::to_string(1000000 + captures) + ".pcap";
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    check(fd >= 0, "open " + path);
    bool complete = true;
    for (unsigned long done = 0; done < capture_bytes; done += CHUNK) {
      if (rate > 0) {  // pace: this chunk may start once the bytes before it are due
        const auto due = begin + static_cast<uint64_t>(static_cast<double>(written + lost) / rate * 1e9);
        while (now_ns() < due) std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
      if (::write(fd, chunk.data(), CHUNK) == static_cast<ssize_t>(CHUNK)) {
        written += CHUNK;
      } else {
        lost += CHUNK;
        complete = false;
      }
    }
    ::close(fd);
    ++captures;
    if (!complete) {
      ::unlink(path.c_str());
      ++lost_captures;
      continue;
    }
    const int again = ::open(path.c_str(), O_WRONLY);
    if (again >= 0) {
      const std::string start = std::to_string(first_packet + captures * 1000000000ULL);
      const std::string creation = std::to_string(1700000000ULL + captures);
      ::fsetxattr(again, "user.pcap_hash", start.data(), start.size(), 0);
      ::fsetxattr(again, "user.pcap_start_ts", start.data(), start.size(), 0);
      ::fsetxattr(again, "user.pcap_end_ts", start.data(), start.size(), 0);
      ::fsetxattr(again, "user.pcap_creation_ts", creation.data(), creation.size(), 0);
      ::close(again);
    }
  }
  const double elapsed = static_cast<double>(now_ns() - begin) / 1e9;
  stop = true;
  sampler.join();
  ::kill(daemon, SIGTERM);
  ::waitpid(daemon, nullptr, 0);
  const std::string daemon_log = read_file(log);
  unsigned long hard_deletions = 0;
  for (size_t at = daemon_log.find("Hard limit: deleting"); at != std::string::npos;
       at = daemon_log.find("Hard limit: deleting", at + 1)) {
    ++hard_deletions;
  }
  ::umount2(root.c_str(), MNT_DETACH);
  ::rmdir(root.c_str());
  ::unlink(log.c_str());

  std::printf(
      "{\"hard_limit\": %s, \"rate_tried_mb_s\": %.1f, \"achieved_mb_s\": %.1f, \"highest_fraction\": %.5f, "
      "\"full_samples\": %lu, \"samples\": %lu, \"written_mib\": %.1f, \"lost_mib\": %.1f, \"captures\": %lu, "
      "\"lost_captures\": %lu, \"hard_limit_deletions\": %lu, \"disk_mib\": %lu, \"capture_mib\": %.1f}\n",
      hard_limit ? "true" : "false", rate / 1e6, static_cast<double>(written) / elapsed / 1e6, f.highest.load(),
      f.full_samples.load(), f.samples.load(), static_cast<double>(written) / MiB, static_cast<double>(lost) / MiB,
      captures, lost_captures, hard_deletions, disk_mib, static_cast<double>(capture_bytes) / MiB);
  return 0;
}
