// An event storm against the running daemon: four writers create, rewrite,
// rename and delete 50,000 captures as fast as they can. inotify folds and
// drops events under such load (its queue overflows, a rename over a
// catalogued name is refused as a duplicate create, a moved capture arrives
// without its attributes). Once the writers are done and the reconcile has
// caught up, the catalogue must equal a fresh scan of the directory; what
// the reconcile repaired is printed, as the measure of what the live path lost.
#include "daemon_harness.hpp"

#include <random>
#include <thread>

namespace faitra_e2e {
namespace {

constexpr int WRITERS = 4, CAPTURES_PER_WRITER = 12500;

// One writer's share: every capture is written as the capture writer does,
// then by a fixed random draw deleted, renamed, renamed over an earlier one,
// rewritten with new content and attributes, or kept.
void storm(const std::string& dir, int writer) {
  std::mt19937 random(static_cast<unsigned>(writer) + 1);
  std::vector<std::string> kept;
  for (unsigned long i = 0; i < CAPTURES_PER_WRITER; ++i) {
    const unsigned long n = static_cast<unsigned long>(writer) * CAPTURES_PER_WRITER + i;
    const std::string path = dir + "/storm-" + std::to_string(n) + ".pcap";
    write_capture(path, 300 + n % 200, attributes(n));
    const unsigned draw = random() % 100;
    if (draw < 30) {
      ::unlink(path.c_str());
    } else if (draw < 45) {
      kept.push_back(dir + "/moved-" + std::to_string(n) + ".pcap");
      ::rename(path.c_str(), kept.back().c_str());
    } else if (draw < 50 && !kept.empty()) {
      ::rename(path.c_str(), kept[random() % kept.size()].c_str());
    } else {
      if (draw < 75) write_capture(path, 600 + n % 100, attributes(n, "rewritten-" + std::to_string(n)));
      kept.push_back(path);
    }
  }
}

TEST(EventStorm, CatalogueEqualsAFreshScanAfterTheReconcile) {
  FAITRA_E2E_TMPFS(dir, 512UL << 20);
  daemon_process daemon({"--root", dir.path(), "--no-auto-cleanup", "--reconcile-interval", "0"});
  ASSERT_TRUE(daemon.wait_ready());
  std::vector<std::thread> writers;
  for (int w = 0; w < WRITERS; ++w) writers.emplace_back(storm, dir.path(), w);
  for (std::thread& t : writers) t.join();
  // Reconcile until no capture counts as still being written (the reconcile
  // leaves files modified in the last seconds to the tracker).
  long repaired = 0;
  ASSERT_TRUE(wait_until(
      [&] {
        const reply r = daemon.request("POST", "/v1/reconcile");
        repaired += r.json["added"].GetInt64() + r.json["removed"].GetInt64() + r.json["updated"].GetInt64();
        return r.json["deferred"].GetInt64() == 0;
      },
      3min));
  const auto scanned = fresh_scan(dir.path());
  const auto catalogued = daemon.catalogue();
  std::vector<std::string> differing;  // named, not dumped: there are tens of thousands
  for (const auto& [path, text] : scanned) {
    if (catalogued.count(path) == 0 || catalogued.at(path) != text) differing.push_back(path);
  }
  EXPECT_EQ(catalogued.size(), scanned.size());
  EXPECT_TRUE(differing.empty()) << differing.size() << " differ, among them " << differing.front();
  EXPECT_EQ(daemon.request("POST", "/v1/reconcile").body.find(R"("added":0,"removed":0,"updated":0,)"), 1u);
  const std::string summary = std::to_string(scanned.size()) + " of " + std::to_string(WRITERS * CAPTURES_PER_WRITER) +
                              " captures left; the reconcile repaired " + std::to_string(repaired);
  RecordProperty("storm", summary);
  std::printf("storm: %s\n", summary.c_str());
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
}  // namespace faitra_e2e
