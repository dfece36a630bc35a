// Memory per catalogued capture: resident set growth of a process while
// 1,000,000 records (48-character paths, 64-character hashes, all three
// timestamps) are inserted, divided by the number of records. Also the
// insert rate of that build from an empty catalogue.
//
// Prints one JSON object.
#include "records.hpp"

#include <malloc.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  const uint64_t records = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
  // Settle the allocator and the page tables of the binary first.
  auto* cache = new csl::fs_cache();
  cache->insert(faitra_bench::capture_record(records + 1));
  cache->delete_by_path(nullptr, faitra_bench::capture_path(records + 1));
  ::malloc_trim(0);
  const uint64_t before = faitra_bench::rss_bytes();
  const uint64_t begin = faitra_bench::now_ns();
  for (uint64_t i = 0; i < records; ++i) cache->insert(faitra_bench::capture_record(i));
  const uint64_t elapsed = faitra_bench::now_ns() - begin;
  const uint64_t after = faitra_bench::rss_bytes();
  std::printf("{\"records\": %lu, \"rss_before\": %lu, \"rss_after\": %lu, \"bytes_per_record\": %.1f, "
              "\"build_ns\": %lu, \"inserts_per_s\": %.0f}\n",
              static_cast<unsigned long>(cache->size()), static_cast<unsigned long>(before),
              static_cast<unsigned long>(after), static_cast<double>(after - before) / static_cast<double>(records),
              static_cast<unsigned long>(elapsed), static_cast<double>(records) * 1e9 / static_cast<double>(elapsed));
  return 0;
}
