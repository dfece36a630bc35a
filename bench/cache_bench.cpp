// Index operations on a catalogue of 1,000,000 captures (Google Benchmark).
//
// Every benchmark runs against the same 1M-record catalogue; the ones that
// add records remove them again, so the catalogue stays at 1M.
#include "records.hpp"

#include <benchmark/benchmark.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace {

using faitra_bench::capture_path;
using faitra_bench::capture_record;

constexpr uint64_t RECORDS = 1000000;
constexpr uint64_t BATCH = 10000;

csl::fs_cache& catalogue() {
  static csl::fs_cache* cache = [] {
    auto* c = new csl::fs_cache();
    for (uint64_t i = 0; i < RECORDS; ++i) c->insert(capture_record(i));
    return c;
  }();
  return *cache;
}

std::vector<std::string> random_paths(size_t count) {
  std::mt19937_64 random(42);
  std::vector<std::string> paths;
  for (size_t i = 0; i < count; ++i) paths.push_back(capture_path(random() % RECORDS));
  return paths;
}

// Inserts BATCH records beyond the first 1M per iteration (then removes
// them untimed).
void insert_at_1m(benchmark::State& state) {
  csl::fs_cache& cache = catalogue();
  std::vector<std::shared_ptr<csl::fs_entry>> batch;
  for (auto _ : state) {
    state.PauseTiming();
    batch.clear();
    for (uint64_t i = 0; i < BATCH; ++i) batch.push_back(capture_record(RECORDS + i));
    state.ResumeTiming();
    for (auto& e : batch) cache.insert(std::move(e));
    state.PauseTiming();
    for (uint64_t i = 0; i < BATCH; ++i) cache.delete_by_path(nullptr, capture_path(RECORDS + i));
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * BATCH));
}
BENCHMARK(insert_at_1m)->Unit(benchmark::kMillisecond)->UseRealTime();

void delete_by_path_at_1m(benchmark::State& state) {
  csl::fs_cache& cache = catalogue();
  std::vector<std::string> paths;
  for (uint64_t i = 0; i < BATCH; ++i) paths.push_back(capture_path(RECORDS + i));
  for (auto _ : state) {
    state.PauseTiming();
    for (uint64_t i = 0; i < BATCH; ++i) cache.insert(capture_record(RECORDS + i));
    state.ResumeTiming();
    for (const auto& path : paths) cache.delete_by_path(nullptr, path);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * BATCH));
}
BENCHMARK(delete_by_path_at_1m)->Unit(benchmark::kMillisecond)->UseRealTime();

void by_path_at_1m(benchmark::State& state) {
  csl::fs_cache& cache = catalogue();
  const std::vector<std::string> paths = random_paths(4096);
  csl::fs_entry out;
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cache.by_path(out, paths[next++ & 4095]));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(by_path_at_1m);

// About 100 records: start timestamps are one second apart.
void by_time_100_at_1m(benchmark::State& state) {
  csl::fs_cache& cache = catalogue();
  std::mt19937_64 random(7);
  size_t records = 0;
  for (auto _ : state) {
    const uint64_t first = faitra_bench::FIRST_START_NS + (random() % (RECORDS - 100)) * faitra_bench::NS_PER_CAPTURE;
    std::vector<csl::fs_entry> out;  // a fresh result per query, as a request handler has
    cache.by_time(out, first, first + 99 * faitra_bench::NS_PER_CAPTURE);
    records = out.size();
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["records"] = static_cast<double>(records);
}
BENCHMARK(by_time_100_at_1m)->Unit(benchmark::kMicrosecond);

// Moves a record's start timestamp back and forth by half a day.
void update_start_ts_at_1m(benchmark::State& state) {
  csl::fs_cache& cache = catalogue();
  std::mt19937_64 random(3);
  csl::fs_entry moved;
  bool forward = true;
  for (auto _ : state) {
    state.PauseTiming();
    const uint64_t i = random() % RECORDS;
    cache.by_path(moved, capture_path(i));
    const uint64_t original = faitra_bench::FIRST_START_NS + i * faitra_bench::NS_PER_CAPTURE;
    moved.start_ts = forward ? original + 43200 * faitra_bench::NS_PER_CAPTURE : original;
    state.ResumeTiming();
    cache.update(moved);
    state.PauseTiming();
    moved.start_ts = original;
    cache.update(moved);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(update_start_ts_at_1m)->Unit(benchmark::kMicrosecond);

// Two readers run by_time (about 100 records) while one writer inserts and
// removes records as fast as it can. Reported: the readers' time per query
// and the writer's inserts per second.
std::atomic<bool> writer_running{false};
std::atomic<uint64_t> writer_inserts{0};
std::thread writer;

void by_time_with_writer(benchmark::State& state) {
  csl::fs_cache& cache = catalogue();
  if (state.thread_index() == 0) {
    writer_inserts = 0;
    writer_running = true;
    writer = std::thread([&cache] {
      uint64_t i = 0;
      while (writer_running.load(std::memory_order_relaxed)) {
        const uint64_t n = RECORDS + (i % BATCH);
        if (i % (2 * BATCH) < BATCH) {
          cache.insert(capture_record(n));
          writer_inserts.fetch_add(1, std::memory_order_relaxed);
        } else {
          cache.delete_by_path(nullptr, capture_path(n));
        }
        ++i;
      }
    });
  }
  std::mt19937_64 random(11 + static_cast<uint64_t>(state.thread_index()));
  const uint64_t begin = faitra_bench::now_ns();
  for (auto _ : state) {
    const uint64_t first = faitra_bench::FIRST_START_NS + (random() % (RECORDS - 100)) * faitra_bench::NS_PER_CAPTURE;
    std::vector<csl::fs_entry> out;
    cache.by_time(out, first, first + 99 * faitra_bench::NS_PER_CAPTURE);
    benchmark::DoNotOptimize(out.data());
  }
  if (state.thread_index() == 0) {
    writer_running = false;
    writer.join();
    const double seconds = static_cast<double>(faitra_bench::now_ns() - begin) / 1e9;
    state.counters["writer_inserts_per_s"] = static_cast<double>(writer_inserts.load()) / seconds;
    for (uint64_t n = RECORDS; n < RECORDS + BATCH; ++n) cache.delete_by_path(nullptr, capture_path(n));
  }
}
BENCHMARK(by_time_with_writer)->Threads(2)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
