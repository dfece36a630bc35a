// The recursive shared mutex: per-thread recursion bookkeeping, the refused
// upgrade, the guards, and its behaviour between real threads.
#include <csl/utils/recursive_shared_mutex.hpp>

#include "support/lock_probe.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using csl::recursive_shared_mutex;
using lock_type = recursive_shared_mutex::lock_type;
using faitra_test::lock_probe;
using guarded = csl::synchronized_ptr_shared<recursive_shared_mutex>;

lock_probe shared_probe(recursive_shared_mutex& m) {
  return lock_probe([&m] { m.lock_shared(); }, [&m] { m.unlock_shared(); });
}
lock_probe exclusive_probe(recursive_shared_mutex& m) {
  return lock_probe([&m] { m.lock(); }, [&m] { m.unlock(); });
}

void expect_state(const recursive_shared_mutex& m, lock_type type, uint64_t count) {
  EXPECT_EQ(m.held_by_this_thread(), type);
  EXPECT_EQ(m.recursion_of_this_thread(), count);
}

TEST(RecursiveSharedMutex, NestedLocksNeedAsManyUnlocksAndSharedInsideExclusiveCounts) {
  recursive_shared_mutex m;
  m.lock();
  m.lock_shared();
  m.lock();
  expect_state(m, lock_type::exclusive, 3);
  m.unlock();
  m.unlock_shared();
  expect_state(m, lock_type::exclusive, 1);
  // Still held: neither a reader nor a writer of another thread gets in.
  for (bool shared : {true, false}) {
    auto probe = shared ? shared_probe(m) : exclusive_probe(m);
    EXPECT_TRUE(probe.blocked()) << (shared ? "reader" : "writer") << " got in";
    probe.releasing();
    m.unlock();
    EXPECT_TRUE(probe.acquired_after_release());
    expect_state(m, lock_type::none, 0);
    m.lock();
  }
  m.unlock();
  std::thread([&] { expect_state(m, lock_type::none, 0); }).join();  // bookkeeping is per thread
}

TEST(RecursiveSharedMutex, UpgradeIsRefusedAndTheSharedLockStays) {
  recursive_shared_mutex m, other;
  other.lock();
  m.lock_shared();
  try {
    m.lock();
    ADD_FAILURE() << "upgrade accepted";
  } catch (const cdl::assertion_failure& e) {
    EXPECT_STREQ(e.what(), "Upgrading a shared lock to exlusive lock is not supported.");
    EXPECT_EQ(e.file(), "recursive_shared_mutex.hpp");
    EXPECT_EQ(e.line(), 23UL);
  }
  expect_state(m, lock_type::shared, 0);
  expect_state(other, lock_type::exclusive, 1);  // each mutex keeps its own bookkeeping
  other.unlock();
  // Other readers still get in; a writer waits for our shared hold.
  EXPECT_TRUE(shared_probe(m).acquired());
  auto writer = exclusive_probe(m);
  EXPECT_TRUE(writer.blocked());
  writer.releasing();
  m.unlock_shared();
  EXPECT_TRUE(writer.acquired_after_release());
  m.lock();
  expect_state(m, lock_type::exclusive, 1);
  m.unlock();
}

TEST(RecursiveSharedMutex, GuardsTakeAndReleaseTheLockAndIgnoreANullMutex) {
  recursive_shared_mutex m;
  const guarded ptr(&m, nullptr);
  {
    guarded::guard outer(ptr);
    guarded::shared_guard inner(ptr);
    expect_state(m, lock_type::exclusive, 2);
  }
  {
    guarded::shared_guard reader(ptr);
    EXPECT_THROW(guarded::guard writer(ptr), cdl::assertion_failure);
    expect_state(m, lock_type::shared, 0);
  }
  expect_state(m, lock_type::none, 0);
  EXPECT_TRUE(exclusive_probe(m).acquired());
  const guarded none(nullptr, nullptr);
  EXPECT_NO_THROW({
    guarded::guard g(none);
    guarded::shared_guard s(none);
  });
}

TEST(RecursiveSharedMutex, ReadersShareWritersExcludeEveryone) {
  recursive_shared_mutex m;
  std::atomic<int> inside{0}, met{0};
  auto meeting_reader = [&] {
    m.lock_shared();
    ++inside;
    if (faitra_test::wait_until([&] { return inside.load() == 2; })) ++met;
    m.unlock_shared();
  };
  std::thread first(meeting_reader), second(meeting_reader);
  first.join();
  second.join();
  EXPECT_EQ(met.load(), 2);

  unsigned long a = 0, b = 0;  // guarded by m only; the sanitizer sees a miss
  std::atomic<int> violations{0};
  constexpr unsigned long rounds = 2000;
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (unsigned long r = 0; r < rounds; ++r) {
        m.lock();
        ++a;
        m.lock_shared();
        if (a != b + 1) ++violations;
        m.unlock_shared();
        ++b;
        m.unlock();
      }
    });
  }
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (unsigned long r = 0; r < rounds; ++r) {
        m.lock_shared();
        if (a != b) ++violations;
        m.unlock_shared();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(violations.load(), 0);
  EXPECT_EQ(a, 2 * rounds);
}

}  // namespace
