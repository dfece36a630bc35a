// fs_cache against the obvious catalogue (bench/plain_catalogue.hpp: the
// plain standard containers), holding the same records in one process.
//
//   plain_comparison [RECORDS] [ROUNDS]
//
// Both catalogues hold the same RECORDS (default 1,000,000) shared records,
// inserted in the same random order. Each round then times, on the thread's
// CPU clock, for both catalogues in turn (which goes first alternates):
// by_path of random paths, by_time queries of 100 records into a fresh
// vector, and inserts of 10,000 new records (removed again, untimed). Prints
// one JSON object with the nanoseconds per operation of every round.
#include "plain_catalogue.hpp"
#include "records.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using faitra_bench::capture_path;
using faitra_bench::capture_record;

constexpr size_t LOOKUPS = 100000;
constexpr size_t QUERIES = 2000;
constexpr uint64_t NEW_RECORDS = 10000;

uint64_t thread_cpu_ns() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// CPU nanoseconds per operation of `ops` operations run by `body`.
double per_op(size_t ops, const std::function<void()>& body) {
  const uint64_t begin = thread_cpu_ns();
  body();
  return static_cast<double>(thread_cpu_ns() - begin) / static_cast<double>(ops);
}

struct timings {
  std::vector<double> faitra, plain;
};

std::string json_list(const std::vector<double>& values) {
  std::string out = "[";
  for (size_t i = 0; i < values.size(); ++i) out.append(i ? ", " : "").append(std::to_string(values[i]));
  return out.append("]");
}

}  // namespace

int main(int argc, char** argv) {
  const uint64_t records = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 7;
  std::vector<std::shared_ptr<csl::fs_entry>> all;
  all.reserve(records);
  for (uint64_t i = 0; i < records; ++i) all.push_back(capture_record(i));
  std::mt19937_64 random(42);
  std::shuffle(all.begin(), all.end(), random);
  auto* cache = new csl::fs_cache();
  auto* plain = new faitra_bench::plain_catalogue();
  for (const auto& record : all) {
    cache->insert(std::shared_ptr<csl::fs_entry>(record));
    plain->insert(record);
  }
  all.clear();

  std::vector<std::string> paths;
  for (size_t i = 0; i < LOOKUPS; ++i) paths.push_back(capture_path(random() % records));
  std::vector<uint64_t> starts;
  for (size_t i = 0; i < QUERIES; ++i) {
    starts.push_back(faitra_bench::FIRST_START_NS + (random() % (records - 100)) * faitra_bench::NS_PER_CAPTURE);
  }
  const uint64_t last_of_100 = 99 * faitra_bench::NS_PER_CAPTURE;

  timings by_path, by_time, insert;
  size_t checksum = 0;
  for (int round = 0; round < rounds; ++round) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool faitra_turn = (turn == 0) == (round % 2 == 0);
      csl::fs_entry out;
      (faitra_turn ? by_path.faitra : by_path.plain).push_back(per_op(LOOKUPS, [&] {
        for (const auto& path : paths) checksum += faitra_turn ? cache->by_path(out, path) : plain->by_path(out, path);
      }));
      (faitra_turn ? by_time.faitra : by_time.plain).push_back(per_op(QUERIES, [&] {
        for (const uint64_t start : starts) {
          std::vector<csl::fs_entry> found;  // a fresh result per query, as a request handler has
          if (faitra_turn) {
            cache->by_time(found, start, start + last_of_100);
          } else {
            plain->by_time(found, start, start + last_of_100);
          }
          checksum += found.size();
        }
      }));
      std::vector<std::shared_ptr<csl::fs_entry>> fresh;
      for (uint64_t i = 0; i < NEW_RECORDS; ++i) fresh.push_back(capture_record(records + i));
      (faitra_turn ? insert.faitra : insert.plain).push_back(per_op(NEW_RECORDS, [&] {
        for (auto& record : fresh) {
          checksum += faitra_turn ? cache->insert(std::move(record)) : plain->insert(std::move(record));
        }
      }));
      for (uint64_t i = 0; i < NEW_RECORDS; ++i) {
        if (faitra_turn) {
          cache->delete_by_path(nullptr, capture_path(records + i));
        } else {
          plain->delete_by_path(capture_path(records + i));
        }
      }
    }
  }
  std::printf("{\"records\": %lu, \"checksum\": %zu", static_cast<unsigned long>(records), checksum);
  for (const auto& [name, t] : {std::pair{"by_path", &by_path}, {"by_time", &by_time}, {"insert", &insert}}) {
    std::printf(", \"%s\": {\"faitra_ns\": %s, \"plain_ns\": %s}", name, json_list(t->faitra).c_str(),
                json_list(t->plain).c_str());
  }
  std::printf("}\n");
  return 0;  // both catalogues are left to the process's exit
}
