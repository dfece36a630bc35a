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

TEST(RefGuard, HoldsTheEntryValueAndRestoresTheExitValueEvenOnAnException) {
  std::atomic<bool> flag{false};
  try {
    flag_guard guard(flag, true, false, nullptr, nullptr, 256);
    EXPECT_TRUE(flag.load());
    throw std::runtime_error("leaving");
  } catch (const std::runtime_error&) {
  }
  EXPECT_FALSE(flag.load());
  {  // with neither value the flag is never written and nothing is queued
    std::queue<bool> recorded;
    flag_guard guard(flag, cdl::nullable<bool>(), cdl::nullable<bool>(), &recorded, nullptr, 8);
    flag = true;
    EXPECT_TRUE(recorded.empty());
  }
  EXPECT_TRUE(flag.load());
}

TEST(RefGuard, FullQueueDropsTheExitRecordButTheExitValueIsStillStored) {
  std::atomic<bool> flag{false};
  std::queue<bool> recorded;
  std::mutex recorded_mutex;
  {
    flag_guard guard(flag, true, true, &recorded, &recorded_mutex, 2);
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
