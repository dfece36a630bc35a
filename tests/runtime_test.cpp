// The reference runtime on real threads: delivery, handler order, failures,
// queue limits and the lifetimes of worker and listener groups.
#include <cdl/task_system.hpp>

#include <support/test_task.hpp>
#include <support/wait.hpp>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fstream>
#include <latch>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned long VERSION = 1;
constexpr unsigned long NO_LIMIT = std::numeric_limits<unsigned long>::max();
using order = cdl::task_handler_order;

// A task that counts constructions and destructions, so tests see that
// every task is disposed of exactly once, delivered or dropped.
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

class special_item : public faitra_test::test_task<special_item, item> {
 public:
  using test_task::test_task;
  static const std::string& name_static() {
    static const std::string name = "runtime_test.special_item";
    return name;
  }
};

cdl::task_ptr<cdl::task> make_item(int value, int producer = 0) {
  return cdl::memory_pool<item>::make(value, producer);
}

// Holds a worker inside a handler until opened (or until a failing test's
// deadline passes).
class gate {
 public:
  void hold() {
    std::unique_lock<std::mutex> lock(_mutex);
    entered = true;
    _cv.wait_for(lock, std::chrono::seconds(20), [&] { return _open; });
  }
  void open() {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _open = true;
    }
    _cv.notify_all();
  }
  std::atomic<bool> entered{false};

 private:
  std::mutex _mutex;
  std::condition_variable _cv;
  bool _open = false;
};

pid_t current_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Whether thread `tid` of this process is blocked in the kernel.
bool is_sleeping(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const auto pos = line.rfind(')');
  return pos != std::string::npos && pos + 2 < line.size() && line[pos + 2] == 'S';
}

// Records what one channel's worker received; written on that worker only.
struct sink {
  void handle(cdl::task_ptr<item>& t) {
    seen.emplace_back(t->producer, t->value);
    ++count;
  }
  std::vector<std::pair<int, int>> seen;
  std::atomic<int> count{0};
};

TEST(Runtime, ConcurrentProducersDeliverEachTaskOnceInProducerOrder) {
  constexpr int producers = 4;
  constexpr int per_producer = 1000;
  sink sinks[2];
  cdl::core core;
  cdl::worker_group workers(core, {2, "delivery"});
  cdl::task_listener_group listeners(workers);
  for (unsigned long c = 0; c < 2; ++c) {
    listeners.task_channel(c).register_task_handler(&sink::handle, &sinks[c], order::normal, VERSION);
  }

  std::latch start(producers);
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      start.arrive_and_wait();
      for (int i = 0; i < per_producer; ++i) {
        ASSERT_TRUE(listeners.task_channel(i % 2).push(make_item(i, p), NO_LIMIT, false));
      }
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_TRUE(faitra_test::wait_until(
      [&] { return sinks[0].count + sinks[1].count == producers * per_producer; }));

  std::vector<std::vector<int>> received(producers);
  for (const auto& s : sinks) {
    std::vector<int> last(producers, -1);
    for (const auto& [producer, value] : s.seen) {
      EXPECT_GT(value, last[producer]) << "producer " << producer;
      last[producer] = value;
      received[producer].push_back(value);
    }
  }
  for (auto& values : received) {
    std::sort(values.begin(), values.end());
    ASSERT_EQ(values.size(), static_cast<size_t>(per_producer));
    for (int i = 0; i < per_producer; ++i) EXPECT_EQ(values[i], i);
  }
  EXPECT_EQ(core.failures(), 0u);
}

struct ordered_handlers {
  void first(cdl::task_ptr<item>& t) { note("first", t); }
  void second(cdl::task_ptr<item>& t) { note("second", t); }
  void special(cdl::task_ptr<special_item>& t) { note("special", t); }
  template <typename T>
  void note(const char* label, cdl::task_ptr<T>& t) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(std::string(label) + ":" + std::to_string(t->value));
    on_worker = on_worker && std::this_thread::get_id() != main_thread;
  }
  size_t size() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls.size();
  }
  std::mutex mutex;
  std::vector<std::string> calls;
  std::thread::id main_thread = std::this_thread::get_id();
  bool on_worker = true;
};

TEST(Runtime, HandlersRunInOrderAndSubclassTasksReachBaseHandlers) {
  ordered_handlers h;
  cdl::core core;
  cdl::worker_group workers(core, {1, "order"});
  cdl::task_listener_group listeners(workers);
  cdl::task_channel& channel = listeners.task_channel(0);
  channel.register_task_handler(&ordered_handlers::first, &h, order::normal, VERSION);
  channel.register_task_handler(&ordered_handlers::second, &h, order::normal, VERSION);
  channel.register_task_handler(&ordered_handlers::special, &h, order::first, VERSION);

  ASSERT_TRUE(channel.push(make_item(1), NO_LIMIT, false));
  ASSERT_TRUE(channel.push(cdl::memory_pool<special_item>::make(2), NO_LIMIT, false));
  ASSERT_TRUE(channel.push(make_item(3), NO_LIMIT, false));
  ASSERT_TRUE(faitra_test::wait_until([&] { return h.size() == 7; }));

  std::lock_guard<std::mutex> lock(h.mutex);
  EXPECT_EQ(h.calls, (std::vector<std::string>{"first:1", "second:1", "special:2", "first:2", "second:2",
                                               "first:3", "second:3"}));
  EXPECT_TRUE(h.on_worker);
}

struct fragile {
  void check(cdl::task_ptr<item>& t) {
    if (t->value == -1) throw std::runtime_error("bad value");
    if (t->value == -2) throw 42;  // not a std::exception
  }
  void record(cdl::task_ptr<item>& t) {
    std::lock_guard<std::mutex> lock(mutex);
    values.push_back(t->value);
  }
  std::vector<int> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return values;
  }
  std::mutex mutex;
  std::vector<int> values;
};

TEST(Runtime, ThrowingHandlerIsCountedAndTheWorkerGoesOn) {
  fragile f;
  cdl::core core;
  cdl::worker_group workers(core, {1, "failures"});
  cdl::task_listener_group listeners(workers);
  cdl::task_channel& channel = listeners.task_channel(0);
  channel.register_task_handler(&fragile::check, &f, order::first, VERSION);
  channel.register_task_handler(&fragile::record, &f, order::normal, VERSION);

  for (int value : {-1, 5, -2, 6}) ASSERT_TRUE(channel.push(make_item(value), NO_LIMIT, false));
  ASSERT_TRUE(faitra_test::wait_until([&] { return f.snapshot().size() == 4; }));
  // The failed task still reaches the later handler.
  EXPECT_EQ(f.snapshot(), (std::vector<int>{-1, 5, -2, 6}));
  EXPECT_EQ(core.failures(), 2u);
}

struct gated_recorder {
  void handle(cdl::task_ptr<item>& t) {
    if (t->value == 0) g.hold();
    std::lock_guard<std::mutex> lock(mutex);
    values.push_back(t->value);
  }
  std::vector<int> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return values;
  }
  gate g;
  std::mutex mutex;
  std::vector<int> values;
};

TEST(Runtime, PushLimitDropsOrWaitsForRoom) {
  gated_recorder r;
  cdl::core core;
  cdl::worker_group workers(core, {1, "limits"});
  cdl::task_listener_group listeners(workers);
  cdl::task_channel& channel = listeners.task_channel(0);
  channel.register_task_handler(&gated_recorder::handle, &r, order::normal, VERSION);

  ASSERT_TRUE(channel.push(make_item(0), NO_LIMIT, false));
  ASSERT_TRUE(faitra_test::wait_until([&] { return r.g.entered.load(); }));
  EXPECT_TRUE(channel.push(make_item(1), 2, false));
  EXPECT_TRUE(channel.push(make_item(2), 2, false));
  cdl::task_ptr<cdl::task> refused = make_item(3);
  EXPECT_FALSE(channel.push(std::move(refused), 2, false));
  EXPECT_TRUE(refused);  // left with the caller

  std::atomic<pid_t> waiter_tid{0};
  std::atomic<bool> opened{false};
  std::atomic<bool> returned{false};
  bool accepted = false;
  bool returned_while_full = false;
  std::thread waiter([&] {
    waiter_tid = current_tid();
    accepted = channel.push(make_item(4), 2, true);
    returned_while_full = !opened;
    returned = true;
  });
  // Open only once the waiter blocks (or, wrongly, has returned).
  EXPECT_TRUE(faitra_test::wait_until([&] { return returned || (waiter_tid != 0 && is_sleeping(waiter_tid)); }));
  opened = true;
  r.g.open();
  waiter.join();
  EXPECT_TRUE(accepted);
  EXPECT_FALSE(returned_while_full);
  ASSERT_TRUE(faitra_test::wait_until([&] { return r.snapshot().size() == 4; }));
  EXPECT_EQ(r.snapshot(), (std::vector<int>{0, 1, 2, 4}));
}

// Runs on worker 0 and stays in its first task until the group is being
// destroyed, which it sees when a push to worker 1 is refused.
struct stopper {
  void handle(cdl::task_ptr<item>& t) {
    if (t->value != 0) {
      ++handled;
      return;
    }
    entered = true;
    saw_stop = faitra_test::wait_until([&] { return !probe->push(make_item(-1), NO_LIMIT, false); });
  }
  cdl::task_channel* probe = nullptr;
  std::atomic<bool> entered{false};
  std::atomic<int> handled{0};
  bool saw_stop = false;
};

TEST(Runtime, DestroyingAWorkerGroupDropsQueuedTasks) {
  const int constructed_before = item::constructed;
  const int destroyed_before = item::destroyed;
  // Channels over the group without a listener group, which would have to
  // go (and drop the tasks itself) before the worker group. Everything the
  // workers use is declared before them, so it outlives them.
  auto dispatchers = std::make_shared<std::vector<cdl::task_dispatcher>>(2);
  const int owner = 0;
  std::unique_ptr<cdl::task_channel> busy;
  std::unique_ptr<cdl::task_channel> idle;
  stopper s;
  cdl::core core;
  auto workers = std::make_unique<cdl::worker_group>(core, cdl::worker_group_config{2, "doomed workers"});
  busy = std::make_unique<cdl::task_channel>(*workers, dispatchers, 0, &owner);
  idle = std::make_unique<cdl::task_channel>(*workers, dispatchers, 1, &owner);
  s.probe = idle.get();
  busy->register_task_handler(&stopper::handle, &s, order::normal, VERSION);

  ASSERT_TRUE(busy->push(make_item(0), NO_LIMIT, false));
  ASSERT_TRUE(faitra_test::wait_until([&] { return s.entered.load(); }));
  constexpr int queued = 5000;
  for (int i = 1; i <= queued; ++i) ASSERT_TRUE(busy->push(make_item(i), NO_LIMIT, false));

  workers.reset();
  EXPECT_TRUE(s.saw_stop);
  EXPECT_EQ(s.handled.load(), 0);
  EXPECT_GE(item::constructed - constructed_before, queued + 1);
  EXPECT_EQ(item::destroyed - destroyed_before, item::constructed - constructed_before);
}

struct counter {
  void handle(cdl::task_ptr<item>&) { ++handled; }
  std::atomic<int> handled{0};
};

TEST(Runtime, DestroyingAListenerGroupDropsItsQueuedTasks) {
  gated_recorder r;
  counter c;
  cdl::core core;
  cdl::worker_group workers(core, {1, "shared worker"});
  cdl::task_listener_group keeper(workers);
  keeper.task_channel(0).register_task_handler(&gated_recorder::handle, &r, order::normal, VERSION);
  auto doomed = std::make_unique<cdl::task_listener_group>(workers);
  doomed->task_channel(0).register_task_handler(&counter::handle, &c, order::normal, VERSION);

  ASSERT_TRUE(keeper.task_channel(0).push(make_item(0), NO_LIMIT, false));
  ASSERT_TRUE(faitra_test::wait_until([&] { return r.g.entered.load(); }));
  constexpr int queued = 100;
  for (int i = 1; i <= queued; ++i) ASSERT_TRUE(doomed->task_channel(0).push(make_item(i), NO_LIMIT, false));
  ASSERT_TRUE(keeper.task_channel(0).push(make_item(7), NO_LIMIT, false));

  // Returns while another group's task runs; the dropped tasks are disposed of.
  const int destroyed_before = item::destroyed;
  doomed.reset();
  EXPECT_EQ(item::destroyed - destroyed_before, queued);

  r.g.open();
  ASSERT_TRUE(faitra_test::wait_until([&] { return r.snapshot().size() == 2; }));
  EXPECT_EQ(r.snapshot(), (std::vector<int>{0, 7}));
  EXPECT_EQ(c.handled.load(), 0);
}

struct slow_finisher {
  void handle(cdl::task_ptr<item>&) {
    g.hold();
    finished = true;
  }
  gate g;
  std::atomic<bool> finished{false};
};

TEST(Runtime, DestroyingAListenerGroupWaitsForItsRunningTask) {
  slow_finisher h;
  cdl::core core;
  cdl::worker_group workers(core, {1, "waiting"});
  auto doomed = std::make_unique<cdl::task_listener_group>(workers);
  doomed->task_channel(0).register_task_handler(&slow_finisher::handle, &h, order::normal, VERSION);
  ASSERT_TRUE(doomed->task_channel(0).push(make_item(1), NO_LIMIT, false));
  ASSERT_TRUE(faitra_test::wait_until([&] { return h.g.entered.load(); }));

  std::atomic<pid_t> destroyer_tid{0};
  std::atomic<bool> destroyed{false};
  bool finished_first = false;
  std::thread destroyer([&] {
    destroyer_tid = current_tid();
    doomed.reset();
    finished_first = h.finished;
    destroyed = true;
  });
  EXPECT_TRUE(
      faitra_test::wait_until([&] { return destroyed || (destroyer_tid != 0 && is_sleeping(destroyer_tid)); }));
  h.g.open();
  destroyer.join();
  EXPECT_TRUE(finished_first);
}

}  // namespace
