// The reference runtime on real threads: delivery, queue limits and the
// lifetimes of worker and listener groups.
#include <cdl/task_system.hpp>

#include <support/test_task.hpp>
#include <support/wait.hpp>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <latch>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned long VERSION = 1;
constexpr unsigned long NO_LIMIT = std::numeric_limits<unsigned long>::max();
using faitra_test::wait_until;
using order = cdl::task_handler_order;

// Counts constructions and destructions: every task is disposed of exactly
// once, delivered or dropped.
class item : public faitra_test::test_task<item> {
 public:
  explicit item(int value = 0, int producer = 0) : test_task(VERSION), value(value), producer(producer) {
    ++constructed;
  }
  ~item() override { ++destroyed; }
  static const std::string& name_static() {
    static const std::string name = "runtime_test.item";
    return name;
  }
  static inline std::atomic<int> constructed{0};
  static inline std::atomic<int> destroyed{0};
  int value;
  int producer;
};

cdl::task_ptr<cdl::task> make_item(int value, int producer = 0) { return cdl::memory_pool<item>::make(value, producer); }

// Whether thread `tid` of this process is blocked in the kernel.
bool is_sleeping(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const auto pos = line.rfind(')');
  return pos != std::string::npos && pos + 2 < line.size() && line[pos + 2] == 'S';
}

// Records the values it handles; value 0 holds the worker until opened.
struct recorder {
  void handle(cdl::task_ptr<item>& t) {
    if (t->value == 0) {
      std::unique_lock<std::mutex> lock(mutex);
      entered = true;
      cv.wait_for(lock, std::chrono::seconds(20), [&] { return opened; });
    }
    const std::lock_guard<std::mutex> lock(mutex);
    seen.emplace_back(t->producer, t->value);
  }
  void open() {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      opened = true;
    }
    cv.notify_all();
  }
  std::vector<std::pair<int, int>> snapshot() {
    const std::lock_guard<std::mutex> lock(mutex);
    return seen;
  }
  std::mutex mutex;
  std::condition_variable cv;
  bool opened = false;
  std::atomic<bool> entered{false};
  std::vector<std::pair<int, int>> seen;
};

TEST(Runtime, ConcurrentProducersDeliverEachTaskOnceInProducerOrder) {
  constexpr int producers = 4, per_producer = 1000;
  recorder sinks[2];
  cdl::core core;
  cdl::worker_group workers(core, {2, "delivery"});
  cdl::task_listener_group listeners(workers);
  for (unsigned long c = 0; c < 2; ++c) {
    listeners.task_channel(c).register_task_handler(&recorder::handle, &sinks[c], order::normal, VERSION);
  }
  std::latch start(producers);
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      start.arrive_and_wait();
      for (int i = 1; i <= per_producer; ++i) listeners.task_channel(i % 2).push(make_item(i, p), NO_LIMIT, false);
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_TRUE(wait_until([&] { return sinks[0].snapshot().size() + sinks[1].snapshot().size() == 4000; }));
  std::vector<int> last[2] = {std::vector<int>(producers, -1), std::vector<int>(producers, 0)};
  std::vector<int> count(producers, 0);
  for (int c = 0; c < 2; ++c) {
    for (const auto& [producer, value] : sinks[c].snapshot()) {
      EXPECT_GT(value, last[c][producer]) << "producer " << producer;
      last[c][producer] = value;
      ++count[producer];
    }
  }
  EXPECT_EQ(count, std::vector<int>(producers, per_producer));
  EXPECT_EQ(core.failures(), 0u);
}

TEST(Runtime, PushLimitDropsOrWaitsForRoom) {
  recorder r;
  cdl::core core;
  cdl::worker_group workers(core, {1, "limits"});
  cdl::task_listener_group listeners(workers);
  cdl::task_channel& channel = listeners.task_channel(0);
  channel.register_task_handler(&recorder::handle, &r, order::normal, VERSION);
  ASSERT_TRUE(channel.push(make_item(0), NO_LIMIT, false));
  ASSERT_TRUE(wait_until([&] { return r.entered.load(); }));
  EXPECT_TRUE(channel.push(make_item(1), 2, false));
  EXPECT_TRUE(channel.push(make_item(2), 2, false));
  cdl::task_ptr<cdl::task> refused = make_item(3);
  EXPECT_FALSE(channel.push(std::move(refused), 2, false));
  EXPECT_TRUE(refused);  // left with the caller

  std::atomic<pid_t> waiter_tid{0};
  std::atomic<bool> opened{false}, returned{false};
  bool accepted = false, returned_while_full = false;
  std::thread waiter([&] {
    waiter_tid = static_cast<pid_t>(::syscall(SYS_gettid));
    accepted = channel.push(make_item(4), 2, true);
    returned_while_full = !opened;
    returned = true;
  });
  EXPECT_TRUE(wait_until([&] { return returned || (waiter_tid != 0 && is_sleeping(waiter_tid)); }));
  opened = true;
  r.open();
  waiter.join();
  EXPECT_TRUE(accepted);
  EXPECT_FALSE(returned_while_full);
  ASSERT_TRUE(wait_until([&] { return r.snapshot().size() == 4; }));
  EXPECT_EQ(r.snapshot(), (std::vector<std::pair<int, int>>{{0, 0}, {0, 1}, {0, 2}, {0, 4}}));
}

TEST(Runtime, DestroyingAWorkerGroupDropsQueuedTasks) {
  const int constructed_before = item::constructed, destroyed_before = item::destroyed;
  // Channels without a listener group, which would drop the tasks itself.
  // Everything the workers use is declared before them, so it outlives them.
  auto dispatchers = std::make_shared<std::vector<cdl::task_dispatcher>>(1);
  const int owner = 0;
  recorder r;
  std::unique_ptr<cdl::task_channel> busy;
  cdl::core core;
  auto workers = std::make_unique<cdl::worker_group>(core, cdl::worker_group_config{1, "doomed workers"});
  busy = std::make_unique<cdl::task_channel>(*workers, dispatchers, 0, &owner);
  busy->register_task_handler(&recorder::handle, &r, order::normal, VERSION);
  ASSERT_TRUE(busy->push(make_item(0), NO_LIMIT, false));
  ASSERT_TRUE(wait_until([&] { return r.entered.load(); }));
  for (int i = 1; i <= 5000; ++i) ASSERT_TRUE(busy->push(make_item(i), NO_LIMIT, false));
  std::thread opener([&] {
    // Open only once the destruction is under way: pushes are refused then.
    wait_until([&] { return !busy->push(make_item(-2), NO_LIMIT, false); });
    r.open();
  });
  workers.reset();
  opener.join();
  EXPECT_EQ(r.snapshot().size(), 1u);
  EXPECT_EQ(item::destroyed - destroyed_before, item::constructed - constructed_before);
}

TEST(Runtime, DestroyingAListenerGroupDropsItsQueueButWaitsForItsRunningTask) {
  recorder keeper_handler, doomed_handler;
  cdl::core core;
  cdl::worker_group workers(core, {1, "shared worker"});
  cdl::task_listener_group keeper(workers);
  keeper.task_channel(0).register_task_handler(&recorder::handle, &keeper_handler, order::normal, VERSION);
  auto doomed = std::make_unique<cdl::task_listener_group>(workers);
  doomed->task_channel(0).register_task_handler(&recorder::handle, &doomed_handler, order::normal, VERSION);

  // Another group's task runs: the doomed group's 100 queued tasks go at once.
  ASSERT_TRUE(keeper.task_channel(0).push(make_item(0), NO_LIMIT, false));
  ASSERT_TRUE(wait_until([&] { return keeper_handler.entered.load(); }));
  for (int i = 1; i <= 100; ++i) ASSERT_TRUE(doomed->task_channel(0).push(make_item(i), NO_LIMIT, false));
  ASSERT_TRUE(doomed->task_channel(0).push(make_item(0), NO_LIMIT, false));  // at the end of its queue
  ASSERT_TRUE(keeper.task_channel(0).push(make_item(7), NO_LIMIT, false));
  const int destroyed_before = item::destroyed;
  doomed.reset();
  EXPECT_EQ(item::destroyed - destroyed_before, 101);
  keeper_handler.open();
  ASSERT_TRUE(wait_until([&] { return keeper_handler.snapshot().size() == 2; }));
  EXPECT_EQ(keeper_handler.snapshot(), (std::vector<std::pair<int, int>>{{0, 0}, {0, 7}}));
  EXPECT_TRUE(doomed_handler.snapshot().empty());

  // Its own task runs: destruction waits for it to finish.
  doomed = std::make_unique<cdl::task_listener_group>(workers);
  recorder slow;
  doomed->task_channel(0).register_task_handler(&recorder::handle, &slow, order::normal, VERSION);
  ASSERT_TRUE(doomed->task_channel(0).push(make_item(0), NO_LIMIT, false));
  ASSERT_TRUE(wait_until([&] { return slow.entered.load(); }));
  std::atomic<pid_t> destroyer_tid{0};
  std::atomic<bool> destroyed{false};
  size_t finished_first = 0;
  std::thread destroyer([&] {
    destroyer_tid = static_cast<pid_t>(::syscall(SYS_gettid));
    doomed.reset();
    finished_first = slow.snapshot().size();
    destroyed = true;
  });
  EXPECT_TRUE(wait_until([&] { return destroyed || (destroyer_tid != 0 && is_sleeping(destroyer_tid)); }));
  slow.open();
  destroyer.join();
  EXPECT_EQ(finished_first, 1u);
}

}  // namespace
