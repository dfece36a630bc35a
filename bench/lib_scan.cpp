// The library-level start-up scan: an fs_tracker with monitoring off,
// filling an fs_cache from one directory, as a host builds it at start.
//
//   lib_scan DIR
//
// Prints {"records": N, "scan_ns": T} where T covers the tracker's
// construction only (the scan and every insert). The process ends without
// tearing the catalogue down.
#include "bench_support.hpp"

#include <csl/fs_cache.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/task_system.hpp>

#include <cstdio>
#include <memory>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: lib_scan DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  cdl::core core;
  cdl::worker_group workers(core, {1, "lib_scan"});
  cdl::task_listener_group listeners(workers);
  // Neither is ever destroyed: a host keeps its catalogue for its lifetime,
  // so the measured process, like the floor, ends without freeing records.
  auto* cache = new std::shared_ptr<csl::fs_cache>(std::make_shared<csl::fs_cache>());
  const uint64_t begin = faitra_bench::now_ns();
  new csl::fs_tracker(listeners, *cache, dir, {dir}, false, faitra_bench::is_capture_name, 0, nullptr);
  const uint64_t elapsed = faitra_bench::now_ns() - begin;
  std::printf("{\"records\": %zu, \"scan_ns\": %lu}\n", (*cache)->size(), static_cast<unsigned long>(elapsed));
  return 0;
}
