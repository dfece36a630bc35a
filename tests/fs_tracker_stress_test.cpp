// Many captures written, rewritten and deleted while the tracker runs: once
// the directory is quiet, the catalogue equals a fresh scan of it.
//
// Only changes that the event folding follows exactly are made: renames over
// or out of the directory and queue overflows are left to the host's
// reconcile, so captures are written in batches, each waited for, far below
// the kernel's default queue limit.
#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <string>

namespace {

TEST(FsTrackerStress, CatalogueEqualsAFreshScanAfterABurst) {
  constexpr int FILES = 2000, BATCH = 400;
  faitra_test::temp_dir dir;
  faitra_test::tracker_harness h;
  h.start(dir.path());
  auto path_of = [&](int i) { return dir.file("cap-" + std::to_string(i) + ".pcap"); };
  size_t expected = 0;
  for (int first = 0; first < FILES; first += BATCH) {
    for (int i = first; i < first + BATCH; ++i) {
      const auto n = static_cast<unsigned long>(i);
      faitra_test::write_capture(path_of(i), n % 977 * 13, {"hash-" + std::to_string(i), n * 1000, n * 1000 + 999,
                                                            1700000000L + i});
      ++expected;
      // Meanwhile delete every third capture of the previous batch and
      // rewrite every seventh.
      if (i < BATCH) continue;
      if ((i - BATCH) % 3 == 0) {
        ASSERT_EQ(::unlink(path_of(i - BATCH).c_str()), 0);
        --expected;
      } else if ((i - BATCH) % 7 == 0) {
        faitra_test::write_capture(path_of(i - BATCH), 4321, {"rewritten", 1, 2, 3});
      }
    }
    ASSERT_TRUE(faitra_test::wait_until([&] { return h.cache().size() == expected; }, std::chrono::seconds(60)))
        << "batch from " << first << ": " << h.cache().size() << " cached, " << expected << " expected";
  }
  csl::fs_cache fresh;
  csl::fs_reader reader(faitra_test::is_capture_name, 236, "user.pcap_hash", "user.pcap_start_ts",
                        "user.pcap_end_ts", "user.pcap_creation_ts", {}, nullptr);
  reader.collect_files(dir.path(), fresh, [](csl::fs_entry&) {}, [](csl::fs_entry&) {});
  const auto reference = faitra_test::contents(fresh);
  ASSERT_EQ(reference.size(), expected);
  EXPECT_EQ(reference.at(path_of(7)).key, "rewritten");
  faitra_test::wait_until([&] { return faitra_test::contents(h.cache()) == reference; }, std::chrono::seconds(60));
  EXPECT_EQ(faitra_test::contents(h.cache()), reference);
}

}  // namespace
