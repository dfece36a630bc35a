// cdl::ref_guard on an atomic flag: what it writes on entry and exit, and
// what it records on its bounded queue.
#include <cdl/ref_guard.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <queue>
#include <stdexcept>
#include <vector>

namespace {

using flag_guard = cdl::ref_guard<std::atomic<bool>, bool>;

std::vector<bool> drain(std::queue<bool>& q) {
  std::vector<bool> out;
  for (; !q.empty(); q.pop()) out.push_back(q.front());
  return out;
}

TEST(RefGuard, HoldsEntryValueForTheScopeAndRestoresExitValueHoweverItEnds) {
  for (const bool leave_by_exception : {false, true}) {
    SCOPED_TRACE(leave_by_exception ? "left by an exception" : "left normally");
    std::atomic<bool> flag{false};
    bool seen_inside = false;
    try {
      flag_guard guard(flag, true, false, nullptr, nullptr, 256);
      seen_inside = flag.load();
      if (leave_by_exception) throw std::runtime_error("leaving");
    } catch (const std::runtime_error&) {
    }
    EXPECT_TRUE(seen_inside);
    EXPECT_FALSE(flag.load());
  }
}

TEST(RefGuard, WithNeitherValueNeverWritesTheFlagNorQueues) {
  for (const bool initial : {false, true}) {
    SCOPED_TRACE(initial ? "flag initially true" : "flag initially false");
    std::atomic<bool> flag{initial};
    std::queue<bool> recorded;
    {
      flag_guard guard(flag, cdl::nullable<bool>(), cdl::nullable<bool>(), &recorded, nullptr, 8);
      EXPECT_EQ(flag.load(), initial);
    }
    EXPECT_EQ(flag.load(), initial);
    EXPECT_TRUE(recorded.empty());
  }
}

TEST(RefGuard, FullQueueDropsTheExitRecordButTheExitValueIsStillStored) {
  std::atomic<bool> flag{false};
  std::queue<bool> recorded;
  std::mutex recorded_mutex;
  {
    flag_guard guard(flag, true, true, &recorded, &recorded_mutex, 2);
    EXPECT_TRUE(flag.load());
    guard.set_value(false);
    EXPECT_FALSE(flag.load());
  }
  EXPECT_TRUE(flag.load());
  EXPECT_EQ(drain(recorded), (std::vector<bool>{true, false}));
}

TEST(RefGuard, OverriddenFinalValueReplacesTheExitValue) {
  std::atomic<bool> flag{false};
  std::queue<bool> recorded;
  {
    flag_guard guard(flag, cdl::nullable<bool>(), false, &recorded, nullptr, 8);
    guard.override_final_value(true);
    EXPECT_FALSE(flag.load()) << "overriding writes nothing by itself";
  }
  EXPECT_TRUE(flag.load());
  EXPECT_EQ(drain(recorded), (std::vector<bool>{true}));
}

}  // namespace
