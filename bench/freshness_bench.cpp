// Freshness: the time from a capture's final close (after its attributes
// are set) to its record, attributes included, being visible through
// fs_cache::by_path.
//
//   freshness_bench [COUNT]
//
// Captures are written one at a time into a directory under $TMPDIR that a
// tracker watches. A handler registered after the tracker's own on the
// tracker's channel sees each updated-task once the tracker has applied it,
// checks by_path and stamps the time. Between captures the writer waits a
// random 0-10 ms, so the writes fall uniformly over the monitor's 10 ms
// poll. Prints one JSON object with every latency in microseconds.
#include "tracker_env.hpp"

#include <csl/fs_events.hpp>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

// Stamps the moment a capture becomes visible with its attributes.
class visibility_probe {
 public:
  explicit visibility_probe(csl::fs_cache& cache) : _cache(cache) {}

  void handle(cdl::task_ptr<csl::fs_entry_updated>& task) {
    csl::fs_entry seen;
    if (!_cache.by_path(seen, task->entry.path) || !seen.has_extended_attributes()) return;
    const uint64_t now = faitra_bench::now_ns();
    std::lock_guard<std::mutex> lock(_mutex);
    if (seen.path == _expected) {
      _visible_at = now;
      _changed.notify_all();
    }
  }

  void expect(const std::string& path) {
    std::lock_guard<std::mutex> lock(_mutex);
    _expected = path;
    _visible_at = 0;
  }

  // The time `expected` became visible, or 0 after a 5 s deadline.
  uint64_t wait() {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait_for(lock, std::chrono::seconds(5), [&] { return _visible_at != 0; });
    return _visible_at;
  }

 private:
  csl::fs_cache& _cache;
  std::mutex _mutex;
  std::condition_variable _changed;
  std::string _expected;
  uint64_t _visible_at = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 1000;
  faitra_bench::scratch_dir dir("faitra-fresh");
  std::vector<double> latencies_us;
  int missed = 0;
  {
    faitra_bench::tracker_env env(dir.path());
    visibility_probe probe(env.cache());
    env.channel().register_task_handler<csl::fs_entry_updated>(&visibility_probe::handle, &probe,
                                                               cdl::task_handler_order::last, ~0UL);
    std::mt19937 random(5);
    std::uniform_int_distribution<int> pause_us(0, 10000);
    for (int i = 0; i < count; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(pause_us(random)));
      const std::string path = dir.path() + "/fresh-" + std::to_string(i) + ".pcap";
      probe.expect(path);
      // write_capture's last step is the final close.
      faitra_bench::write_capture(path, 4096, faitra_bench::now_ns(), faitra_bench::hash_of(i));
      const uint64_t closed = faitra_bench::now_ns();
      const uint64_t visible = probe.wait();
      if (visible == 0) {
        ++missed;
        continue;
      }
      // The record can be visible with its attributes before the final close
      // is stamped (the attribute event comes first, and on a loaded machine
      // the writer may be descheduled between its close and the stamp): 0.
      latencies_us.push_back(visible > closed ? static_cast<double>(visible - closed) / 1000.0 : 0.0);
    }
  }
  std::printf("{\"captures\": %d, \"missed\": %d, \"p50_us\": %.1f, \"p99_us\": %.1f, \"max_us\": %.1f, "
              "\"latencies_us\": [",
              count, missed, faitra_bench::quantile(latencies_us, 0.5), faitra_bench::quantile(latencies_us, 0.99),
              faitra_bench::quantile(latencies_us, 1.0));
  for (size_t i = 0; i < latencies_us.size(); ++i) std::printf("%s%.1f", i == 0 ? "" : ", ", latencies_us[i]);
  std::printf("]}\n");
  return missed == 0 ? 0 : 1;
}
