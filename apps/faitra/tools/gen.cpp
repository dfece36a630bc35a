// faitra gen: writes synthetic captures into a directory the way a capture
// writer does (see pcap_writer.hpp), at a steady rate.
#include "commands.hpp"
#include "option_values.hpp"
#include <faitra/host/pcap_writer.hpp>

#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

namespace faitra_cli {

using namespace faitra_host;

namespace {

constexpr uint64_t NS_PER_SECOND = 1000000000ULL;

bool parse_unsigned(const std::string& text, size_t length, uint64_t& out) {
  if (length == 0) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + length, out);
  return error == std::errc() && end == text.data() + length;
}

bool multiply(uint64_t& value, uint64_t factor) {
  if (value > UINT64_MAX / factor) return false;
  value *= factor;
  return true;
}

// "1048576", "512K", "1M", "2GiB": bytes, the suffixes in powers of 1024.
bool parse_size(const std::string& text, uint64_t& out) {
  size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  if (!parse_unsigned(text, digits, out)) return false;
  std::string unit = text.substr(digits);
  if (unit.empty() || unit == "B") return true;
  if (unit.size() == 3 && unit.compare(1, 2, "iB") == 0) unit.resize(1);
  if (unit.size() == 2 && unit[1] == 'B') unit.resize(1);
  if (unit.size() != 1) return false;
  switch (unit[0]) {
    case 'k': case 'K': return multiply(out, 1ULL << 10);
    case 'm': case 'M': return multiply(out, 1ULL << 20);
    case 'g': case 'G': return multiply(out, 1ULL << 30);
    case 't': case 'T': return multiply(out, 1ULL << 40);
    default: return false;
  }
}

// "1700000000000000000" (ns), "1700000000s", "1700000000000ms", "...us", "...ns".
bool parse_time(const std::string& text, uint64_t& out) {
  size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  if (!parse_unsigned(text, digits, out)) return false;
  const std::string unit = text.substr(digits);
  if (unit.empty() || unit == "ns") return true;
  if (unit == "us") return multiply(out, 1000ULL);
  if (unit == "ms") return multiply(out, 1000000ULL);
  if (unit == "s") return multiply(out, NS_PER_SECOND);
  return false;
}

uint64_t now_ns(clockid_t clock) {
  timespec ts{};
  ::clock_gettime(clock, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * NS_PER_SECOND + static_cast<uint64_t>(ts.tv_nsec);
}

// Waits until the monotonic clock reaches `deadline_ns` or SIGINT/SIGTERM
// (blocked, so delivered only here) arrives. Returns whether a signal came.
bool wait_for_signal_until(const sigset_t& signals, uint64_t deadline_ns) {
  for (;;) {
    const uint64_t now = now_ns(CLOCK_MONOTONIC);
    const uint64_t left = deadline_ns > now ? deadline_ns - now : 0;
    const timespec timeout{static_cast<time_t>(left / NS_PER_SECOND), static_cast<long>(left % NS_PER_SECOND)};
    if (::sigtimedwait(&signals, nullptr, &timeout) >= 0) return true;
    if (errno == EAGAIN) return false;  // the deadline passed
    // EINTR: another signal; wait on.
  }
}

struct gen_options {
  std::string dir;
  unsigned long count = 10;
  std::string size = "1M";
  double rate = 1.0;
  std::string prefix = "capture";
  std::string start_time;
  bool quiet = false;
};

int run_gen(const gen_options& options) {
  uint64_t size = 0;
  parse_size(options.size, size);  // validated by the option's check
  uint64_t first_ns = now_ns(CLOCK_REALTIME);
  if (!options.start_time.empty()) parse_time(options.start_time, first_ns);

  struct stat status {};
  if (::stat(options.dir.c_str(), &status) != 0) {
    std::fprintf(stderr, "faitra gen: %s: %s\n", options.dir.c_str(), std::strerror(errno));
    return 1;
  }
  if (!S_ISDIR(status.st_mode)) {
    std::fprintf(stderr, "faitra gen: %s: not a directory\n", options.dir.c_str());
    return 1;
  }

  // SIGINT and SIGTERM are only taken between files, so a file is never left
  // half written.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);

  const uint64_t span_ns = options.rate > 0 ? static_cast<uint64_t>(std::llround(1e9 / options.rate)) : NS_PER_SECOND;
  const uint64_t interval_ns = span_ns;
  const uint64_t started = now_ns(CLOCK_MONOTONIC);
  const std::string dir = options.dir.size() > 1 && options.dir.back() == '/'
                              ? options.dir.substr(0, options.dir.find_last_not_of('/') + 1)
                              : options.dir;
  const std::string stem = (dir == "/" ? "" : dir) + "/" + options.prefix + "-";

  unsigned long written = 0;
  unsigned long dropped = 0;
  bool stopped = false;
  for (unsigned long i = 0; options.count == 0 || i < options.count; ++i) {
    const uint64_t due = options.rate > 0 ? started + i * interval_ns : 0;
    if (wait_for_signal_until(signals, due)) {
      stopped = true;
      break;
    }
    char name[32];
    std::snprintf(name, sizeof(name), "%020llu", static_cast<unsigned long long>(first_ns));
    const std::string path = stem + name + ".pcap";
    capture_plan plan;
    plan.size = size;
    plan.first_ns = first_ns;
    plan.span_ns = span_ns;
    first_ns += span_ns;
    try {
      const capture_written file = write_capture_file(path, plan);
      ++written;
      // With very high rates a file's packets may need more than its span.
      if (file.last_ns >= first_ns) first_ns = file.last_ns + 1;
      if (!options.quiet) {
        std::printf("wrote %s: %lu bytes, %lu packets, %llu..%llu ns, hash %s\n", file.path.c_str(), file.bytes,
                    file.packets, static_cast<unsigned long long>(file.first_ns),
                    static_cast<unsigned long long>(file.last_ns), file.hash.c_str());
        if (options.rate > 0) std::fflush(stdout);
      }
    } catch (const std::system_error& e) {
      const bool full = e.code().category() == std::generic_category() &&
                        (e.code().value() == ENOSPC || e.code().value() == EDQUOT);
      if (!full) {
        std::fprintf(stderr, "faitra gen: %s\n", e.what());
        return 1;
      }
      // A full file system drops the capture, as a live writer would.
      ++dropped;
      std::fprintf(stderr, "faitra gen: dropped %s: no space left on device\n", path.c_str());
      // Without a rate nothing else paces the retries.
      if (options.rate <= 0 && wait_for_signal_until(signals, now_ns(CLOCK_MONOTONIC) + NS_PER_SECOND / 10)) {
        stopped = true;
        break;
      }
    }
  }
  std::fflush(stdout);
  if (!options.quiet && (stopped || dropped > 0)) {
    std::fprintf(stderr, "faitra gen: %lu captures written, %lu dropped%s\n", written, dropped,
                 stopped ? ", stopped by signal" : "");
  }
  return 0;
}

}  // namespace

void register_gen(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<gen_options>();
  auto* sub = app.add_subcommand("gen", "Write synthetic packet captures into DIR, as a capture writer does.");
  sub->footer(
      "Each capture is a classic libpcap file (nanosecond magic 0xa1b23c4d, version 2.4, Ethernet) of exactly\n"
      "--size bytes holding synthetic Ethernet/IPv4/UDP packets. It is created, written and closed, then\n"
      "reopened for writing to set its attributes, and closed again:\n"
      "  user.pcap_hash         FNV-1a 64-bit hash of the file's bytes, as 16 lower-case hex digits\n"
      "  user.pcap_start_ts     time of the first packet, ns since the epoch\n"
      "  user.pcap_end_ts       time of the last packet, ns since the epoch\n"
      "  user.pcap_creation_ts  time of the first packet, whole seconds since the epoch\n"
      "Files are named PREFIX-<first packet time in ns, 20 digits>.pcap, so name order is time order.\n"
      "Each file covers 1/RATE seconds of packet time (1 s with --rate 0); the next file starts where the\n"
      "previous one ended. SIGINT or SIGTERM stops after the file being written. A file that does not fit\n"
      "(no space left) is removed and dropped, and writing goes on. One line per file on standard output.\n");
  sub->add_option("DIR", options->dir, "Directory to write into (must exist)")->required();
  sub->add_option("--count", options->count, "Number of files; 0 writes until interrupted")
      ->capture_default_str()
      ->check(unsigned_value());
  sub->add_option("--size", options->size, "Bytes per file; suffixes K, M, G, T (powers of 1024)")
      ->capture_default_str()
      ->check(CLI::Validator(
          [](std::string& text) -> std::string {
            uint64_t value = 0;
            if (!parse_size(text, value)) return "not a size: " + text;
            if (value < MIN_CAPTURE_SIZE) return "a capture needs at least " + std::to_string(MIN_CAPTURE_SIZE) + " bytes";
            return {};
          },
          "SIZE"));
  sub->add_option("--rate", options->rate, "Files per second; 0 writes as fast as possible")
      ->capture_default_str()
      ->check(number_value(0.0));
  sub->add_option("--prefix", options->prefix, "File name prefix")->capture_default_str();
  sub->add_option("--start-time", options->start_time,
                  "Time of the first packet since the epoch: ns, or with a unit: 1700000000s, ...ms, ...us, ...ns "
                  "(default: now)")
      ->check(CLI::Validator(
          [](std::string& text) -> std::string {
            uint64_t value = 0;
            return parse_time(text, value) ? std::string() : "not a time: " + text;
          },
          "TIME"));
  sub->add_flag("-q,--quiet", options->quiet, "Print nothing per file");
  sub->callback([options, &exit_code] { exit_code = run_gen(*options); });
}

}  // namespace faitra_cli
