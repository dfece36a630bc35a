// Many captures written, rewritten and deleted while the tracker runs: once
// the directory is quiet, the catalogue equals a fresh scan of it.
//
// Only changes that the event folding can follow exactly are made here.
// These cannot be, by design, and are left to the host's reconcile:
//  - a rename over an existing name: only a moved-to event arrives, the
//    created task fails to insert (the path exists) and the old record stays;
//  - a rename out of the directory: the moved-from event also folds into a
//    created task, whose stat fails, so the old record is never erased;
//  - a rename into the directory: the created task reads the status only, so
//    the record lacks the attributes a scan reads until the file's next close;
//  - a queue overflow: the kernel drops events and the overflow event itself
//    is skipped. Captures are therefore written in batches, each waited for,
//    so far fewer events are ever queued than the kernel's default limit.
#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <map>
#include <string>

namespace {

using faitra_test::contents;
using faitra_test::text_of;
using faitra_test::wait_until;

constexpr int FILES = 2000;
constexpr int BATCH = 400;

std::string name_of(int i) { return "cap-" + std::to_string(i) + ".pcap"; }

// path -> expected hash of what the catalogue should hold.
bool keys_match(const csl::fs_cache& cache, const std::map<std::string, std::string>& expected) {
  const auto actual = contents(cache);
  if (actual.size() != expected.size()) return false;
  for (const auto& [path, hash] : expected) {
    const auto it = actual.find(path);
    if (it == actual.end() || it->second.key != hash) return false;
  }
  return true;
}

TEST(FsTrackerStress, CatalogueEqualsAFreshScanAfterABurst) {
  faitra_test::temp_dir dir;
  faitra_test::tracker_harness h;
  h.start(dir.path());

  std::map<std::string, std::string> expected;
  for (int first = 0; first < FILES; first += BATCH) {
    for (int i = first; i < first + BATCH; ++i) {
      const std::string path = dir.file(name_of(i));
      faitra_test::write_capture(path, static_cast<unsigned long>(i % 977) * 13,
                                 {"hash-" + std::to_string(i), static_cast<unsigned long>(i) * 1000,
                                  static_cast<unsigned long>(i) * 1000 + 999, 1700000000L + i});
      expected[path] = "hash-" + std::to_string(i);
      // Meanwhile, delete every third capture of the previous batch and
      // rewrite every seventh.
      const int old = i - BATCH;
      if (old < 0) continue;
      const std::string old_path = dir.file(name_of(old));
      if (old % 3 == 0) {
        ASSERT_EQ(::unlink(old_path.c_str()), 0);
        expected.erase(old_path);
      } else if (old % 7 == 0) {
        faitra_test::write_capture(old_path, 4321, {"rewritten-" + std::to_string(old), 1, 2, 3});
        expected[old_path] = "rewritten-" + std::to_string(old);
      }
    }
    ASSERT_TRUE(wait_until([&] { return keys_match(h.cache(), expected); }, std::chrono::seconds(60)))
        << "batch from " << first << ": " << h.cache().size() << " cached, " << expected.size() << " expected";
  }

  // The directory is quiet now: one fresh scan is the reference.
  csl::fs_cache fresh;
  csl::fs_reader reader(faitra_test::is_capture_name, 236, "user.pcap_hash", "user.pcap_start_ts",
                        "user.pcap_end_ts", "user.pcap_creation_ts", {}, nullptr);
  reader.collect_files(dir.path(), fresh, [](csl::fs_entry&) {}, [](csl::fs_entry&) {});
  ASSERT_EQ(fresh.size(), expected.size());
  const auto reference = contents(fresh);
  wait_until([&] { return contents(h.cache()) == reference; }, std::chrono::seconds(60));
  EXPECT_EQ(contents(h.cache()), reference);

  // Spot-check one rewritten record field by field.
  const auto rewritten = reference.at(dir.file(name_of(7)));
  EXPECT_EQ(rewritten.key, "rewritten-7");
  EXPECT_EQ(rewritten.file_size, 4321u);
  EXPECT_EQ(rewritten.creation_ts, 3u);
}

}  // namespace
