// An event storm against the running daemon: four writers create, rewrite,
// rename and delete 50,000 captures as fast as they can while the daemon
// follows the directory. inotify folds and drops events under such load
// (its queue overflows, a rename over a catalogued name is refused as a
// duplicate create, a moved capture arrives without its attributes). Once
// the writers are done and the reconcile has caught up, the catalogue must
// equal a fresh scan of the directory. What the reconcile repaired is
// printed, as the measure of what the live path lost.
#include "daemon_harness.hpp"

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace faitra_e2e {
namespace {

constexpr int WRITERS = 4;
constexpr int CAPTURES_PER_WRITER = 12500;

struct repairs {
  long added = 0;
  long removed = 0;
  long updated = 0;
  int runs = 0;
};

// One writer's share of the storm. Every capture is written the way the
// capture writer does it; then, by a fixed random draw, it is deleted,
// renamed to a new name, renamed over an earlier capture of this writer,
// rewritten with new content and attributes, or kept.
void storm(const std::string& dir, int writer) {
  std::mt19937 random(static_cast<unsigned>(writer) + 1);
  std::vector<std::string> kept;
  for (int i = 0; i < CAPTURES_PER_WRITER; ++i) {
    const unsigned long n = static_cast<unsigned long>(writer) * CAPTURES_PER_WRITER + static_cast<unsigned long>(i);
    const std::string path = dir + "/storm-" + std::to_string(n) + ".pcap";
    faitra_test::write_capture(path, 300 + n % 200, attributes(n));
    const unsigned draw = random() % 100;
    if (draw < 30) {
      ::unlink(path.c_str());
    } else if (draw < 45) {
      const std::string moved = dir + "/moved-" + std::to_string(n) + ".pcap";
      ::rename(path.c_str(), moved.c_str());
      kept.push_back(moved);
    } else if (draw < 50 && !kept.empty()) {
      const size_t victim = random() % kept.size();
      ::rename(path.c_str(), kept[victim].c_str());
    } else if (draw < 75) {
      faitra_test::write_and_close(path, 600 + n % 100);
      faitra_test::set_capture_attributes(path, attributes(n, "rewritten-" + std::to_string(n)));
      kept.push_back(path);
    } else {
      kept.push_back(path);
    }
  }
}

TEST(EventStorm, CatalogueEqualsAFreshScanAfterTheReconcile) {
  FAITRA_E2E_TMPFS(dir, 512UL << 20);
  daemon_process daemon({"--root", dir.path(), "--no-auto-cleanup", "--reconcile-interval", "0"});
  ASSERT_TRUE(daemon.wait_ready()) << daemon.log();

  std::vector<std::thread> writers;
  for (int w = 0; w < WRITERS; ++w) writers.emplace_back(storm, dir.path(), w);
  for (std::thread& t : writers) t.join();
  ASSERT_TRUE(daemon.alive());

  // The quiet period: reconcile until no capture counts as still being
  // written (the reconcile leaves a file modified in the last seconds to
  // the tracker).
  repairs repaired;
  const bool settled = faitra_test::wait_until(
      [&] {
        const reply r = daemon.request("POST", "/v1/reconcile");
        if (r.status != 200) return false;
        ++repaired.runs;
        repaired.added += r.json["added"].GetInt64();
        repaired.removed += r.json["removed"].GetInt64();
        repaired.updated += r.json["updated"].GetInt64();
        return r.json["deferred"].GetInt64() == 0;
      },
      std::chrono::minutes(3));
  ASSERT_TRUE(settled);

  const std::map<std::string, std::string> scanned = fresh_scan(dir.path());
  const std::map<std::string, std::string> catalogued = daemon.catalogue();
  ASSERT_FALSE(scanned.empty());
  EXPECT_EQ(catalogued.size(), scanned.size());
  for (const auto& [path, text] : scanned) {
    const auto found = catalogued.find(path);
    if (found == catalogued.end()) {
      ADD_FAILURE() << "on disk, not catalogued: " << path;
    } else {
      EXPECT_EQ(found->second, text) << path;
    }
  }
  for (const auto& [path, text] : catalogued) {
    if (scanned.count(path) == 0) ADD_FAILURE() << "catalogued, not on disk: " << path;
  }

  // Nothing is left for another run to repair, and the metrics agree with
  // what the runs reported.
  const reply last = daemon.request("POST", "/v1/reconcile");
  ASSERT_EQ(last.status, 200);
  EXPECT_EQ(last.json["added"].GetInt64() + last.json["removed"].GetInt64() + last.json["updated"].GetInt64(), 0)
      << last.body;
  const long metric_total = daemon.metric("faitra_drift_repaired_total{kind=\"added\"}") +
                            daemon.metric("faitra_drift_repaired_total{kind=\"removed\"}") +
                            daemon.metric("faitra_drift_repaired_total{kind=\"updated\"}");
  EXPECT_GE(metric_total, repaired.added + repaired.removed + repaired.updated);

  const std::string summary = "captures written " + std::to_string(WRITERS * CAPTURES_PER_WRITER) + ", on disk " +
                              std::to_string(scanned.size()) + "; repaired by " + std::to_string(repaired.runs) +
                              " reconcile runs: added " + std::to_string(repaired.added) + ", removed " +
                              std::to_string(repaired.removed) + ", updated " + std::to_string(repaired.updated) +
                              "; repaired in all since start: " + std::to_string(metric_total);
  RecordProperty("storm", summary);
  std::printf("storm: %s\n", summary.c_str());
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
}  // namespace faitra_e2e
