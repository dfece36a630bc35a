// Handler registration, running order, typed dispatch and the runtime's
// start and stop callbacks.
#include <cdl/task_system.hpp>

#include <support/test_task.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr unsigned long VERSION = 3;

class parcel : public faitra_test::test_task<parcel> {
 public:
  explicit parcel(int value = 0) : test_task(VERSION), value(value) {}
  static const std::string& name_static() {
    static const std::string name = "dispatch_test.parcel";
    return name;
  }
  int value;
};

class express_parcel : public faitra_test::test_task<express_parcel, parcel> {
 public:
  using test_task::test_task;
  static const std::string& name_static() {
    static const std::string name = "dispatch_test.express_parcel";
    return name;
  }
};

class letter : public faitra_test::test_task<letter> {
 public:
  letter() : test_task(VERSION) {}
  static const std::string& name_static() {
    static const std::string name = "dispatch_test.letter";
    return name;
  }
};

// A component whose handlers log their calls under a label.
struct recorder {
  std::vector<std::string> calls;
  void first(cdl::task_ptr<parcel>&) { calls.push_back("first"); }
  void normal_a(cdl::task_ptr<parcel>&) { calls.push_back("normal_a"); }
  void normal_b(cdl::task_ptr<parcel>&) { calls.push_back("normal_b"); }
  void last_a(cdl::task_ptr<parcel>&) { calls.push_back("last_a"); }
  void last_b(cdl::task_ptr<parcel>&) { calls.push_back("last_b"); }
  void on_express(cdl::task_ptr<express_parcel>&) { calls.push_back("express"); }
  void failing(cdl::task_ptr<parcel>&) {
    calls.push_back("failing");
    throw std::runtime_error("handler failed");
  }
  void keeping(cdl::task_ptr<parcel>& t) {
    calls.push_back("keeping");
    kept = std::move(t);
  }
  cdl::task_ptr<parcel> kept;
};

std::vector<unsigned long> sequences(const cdl::task_dispatcher& dispatcher, const cdl::task_type& type,
                                     unsigned long version) {
  std::vector<unsigned long> result;
  for (const auto& mapping : dispatcher.handlers(type, version)) result.push_back(mapping->sequence());
  return result;
}

TEST(TaskRegistration, SameClassAndVersionShareOneEntryOnTheChannelsWorker) {
  cdl::core core;
  cdl::worker_group workers(core, {2, "dispatch test"});
  cdl::task_listener_group listeners(workers);
  cdl::task_channel& channel = listeners.task_channel(1);
  recorder r;

  channel.register_task_handler(&recorder::normal_a, &r, cdl::task_handler_order::normal, VERSION);
  channel.register_task_handler(&recorder::normal_b, &r, cdl::task_handler_order::normal, VERSION);
  channel.register_task_handler(&recorder::normal_a, &r, cdl::task_handler_order::normal, VERSION + 1);

  const cdl::task_type& type = cdl::task_type::identify<parcel>();
  const auto& dispatchers = *channel.dispatchers();
  EXPECT_EQ(dispatchers[0].handler_count(type, VERSION), 0u);  // another worker's table
  const auto seq = sequences(dispatchers[1], type, VERSION);
  ASSERT_EQ(seq.size(), 2u);
  EXPECT_EQ(seq[1], seq[0] + 1);
  EXPECT_EQ(dispatchers[1].handler_count(type, VERSION + 1), 1u);
  EXPECT_EQ(dispatchers[1].handlers(type, VERSION)[0]->task_type_name(), "dispatch_test.parcel");

  const auto announced = channel.registered_types();
  EXPECT_EQ(announced.count({type, VERSION}), 1u);
  EXPECT_EQ(announced.count({type, VERSION + 1}), 1u);
}

TEST(TaskRegistration, RunningOrderAndSequences) {
  cdl::core core;
  cdl::task_dispatcher dispatcher;
  recorder r;
  const unsigned long start = cdl::task_dispatcher::counter;
  using order = cdl::task_handler_order;
  dispatcher.register_task_handler(&recorder::normal_a, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::last_a, &r, order::last, VERSION);
  dispatcher.register_task_handler(&recorder::first, &r, order::first, VERSION);
  dispatcher.register_task_handler(&recorder::last_b, &r, order::last, VERSION);
  dispatcher.register_task_handler(&recorder::normal_b, &r, order::normal, VERSION);

  const unsigned long max = std::numeric_limits<unsigned long>::max();
  EXPECT_EQ(sequences(dispatcher, cdl::task_type::identify<parcel>(), VERSION),
            (std::vector<unsigned long>{start + 2, start, start + 4, max - (start + 3), max - (start + 1)}));

  cdl::task_ptr<cdl::task> t = cdl::memory_pool<parcel>::make();
  dispatcher.dispatch(t, core, "test");
  EXPECT_EQ(r.calls, (std::vector<std::string>{"first", "normal_a", "normal_b", "last_b", "last_a"}));
  EXPECT_TRUE(t);
}

TEST(TaskRegistration, DispatcherMatchesVersionAndBaseClasses) {
  cdl::core core;
  cdl::task_dispatcher dispatcher;
  recorder r;
  using order = cdl::task_handler_order;
  dispatcher.register_task_handler(&recorder::normal_a, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::on_express, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::last_a, &r, order::last, VERSION + 1);

  struct case_t {
    const char* what;
    cdl::task_ptr<cdl::task> task;
    std::vector<std::string> calls;
  };
  std::vector<case_t> cases;
  cases.push_back({"exact class", cdl::memory_pool<parcel>::make(), {"normal_a"}});
  cases.push_back({"subclass reaches both", cdl::memory_pool<express_parcel>::make(), {"normal_a", "express"}});
  cases.push_back({"other class", cdl::memory_pool<letter>::make(), {}});
  for (auto& c : cases) {
    SCOPED_TRACE(c.what);
    r.calls.clear();
    dispatcher.dispatch(c.task, core, "test");
    EXPECT_EQ(r.calls, c.calls);
  }
  EXPECT_EQ(core.failures(), 0u);
}

TEST(TaskRegistration, KeptTaskSkipsLaterHandlersAndFailuresAreCounted) {
  cdl::core core;
  cdl::task_dispatcher dispatcher;
  recorder r;
  using order = cdl::task_handler_order;
  dispatcher.register_task_handler(&recorder::failing, &r, order::first, VERSION);
  dispatcher.register_task_handler(&recorder::keeping, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::last_a, &r, order::last, VERSION);

  cdl::task_ptr<cdl::task> t = cdl::memory_pool<parcel>::make(4);
  dispatcher.dispatch(t, core, "test");
  EXPECT_EQ(r.calls, (std::vector<std::string>{"failing", "keeping"}));
  EXPECT_EQ(core.failures(), 1u);
  EXPECT_FALSE(t);
  ASSERT_TRUE(r.kept);
  EXPECT_EQ(r.kept->value, 4);
}

// ---------------------------------------------------------------------------
// task_mapping::dispatch

TEST(TaskMapping, HandsTheTaskBackUnlessTheHandlerKeptIt) {
  cdl::task_ptr<parcel> elsewhere;
  struct case_t {
    const char* what;
    std::function<void(cdl::task_ptr<parcel>&)> handler;
    bool throws;
    bool handed_back;
  };
  const std::vector<case_t> cases = {
      {"leaves it", [](cdl::task_ptr<parcel>& t) { t->value += 1; }, false, true},
      {"moves it elsewhere", [&](cdl::task_ptr<parcel>& t) { elsewhere = std::move(t); }, false, false},
      {"throws", [](cdl::task_ptr<parcel>&) { throw std::logic_error("boom"); }, true, true},
      {"moves it, then throws",
       [&](cdl::task_ptr<parcel>& t) {
         elsewhere = std::move(t);
         throw std::logic_error("boom");
       },
       true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    elsewhere.clear();
    cdl::task_mapping<parcel> mapping(c.handler, cdl::task_handler_order::normal, 0);
    cdl::task_ptr<cdl::task> t = cdl::memory_pool<parcel>::make(1);
    cdl::task* object = t.get();
    if (c.throws) {
      EXPECT_THROW(mapping.dispatch(t), std::logic_error);
    } else {
      mapping.dispatch(t);
    }
    if (c.handed_back) {
      ASSERT_TRUE(t);
      EXPECT_EQ(t.get(), object);
      EXPECT_FALSE(elsewhere);
    } else {
      EXPECT_FALSE(t);
      ASSERT_TRUE(elsewhere);
      EXPECT_EQ(static_cast<cdl::task*>(elsewhere.get()), object);
    }
  }
}

TEST(TaskMapping, EmptyHandleIsRejected) {
  bool called = false;
  cdl::task_mapping<parcel> mapping([&](cdl::task_ptr<parcel>&) { called = true; }, cdl::task_handler_order::normal,
                                    0);
  cdl::task_ptr<cdl::task> empty;
  faitra_test::expect_cdl_exception([&] { mapping.dispatch(empty); },
                                    "Could not dispatch a task (dispatch_test.parcel). It is a nullptr.",
                                    "task_mapping.hpp", 240);
  EXPECT_FALSE(called);
}

TEST(TaskTypeComparator, IsBaseOfOnlyForStrictSubclasses) {
  cdl::task_type_comparator<parcel> comparator;
  parcel exact;
  express_parcel derived;
  letter other;
  EXPECT_FALSE(comparator.is_base_of(&exact));
  EXPECT_TRUE(comparator.is_base_of(&derived));
  EXPECT_FALSE(comparator.is_base_of(&other));
  EXPECT_FALSE(comparator.is_base_of(nullptr));
  EXPECT_FALSE(cdl::task_type_comparator<express_parcel>().is_base_of(&exact));
}

// ---------------------------------------------------------------------------
// runtime callbacks

struct component {
  std::string label;
  std::vector<std::string>* log;
  void start() { log->push_back(label + " start"); }
  void stop() { log->push_back(label + " stop"); }
};

TEST(RuntimeCallbacks, StartInRegistrationOrderStopInReverseEachOnce) {
  std::vector<std::string> log;
  component a{"a", &log};
  component b{"b", &log};
  cdl::runtime runtime;
  runtime.register_start_callback(&component::start, &a);
  runtime.register_stop_callback(&component::stop, &a);
  runtime.register_start_callback(&component::start, &b);
  runtime.register_stop_callback(&component::stop, &b);

  runtime.start();
  runtime.start();
  EXPECT_EQ(log, (std::vector<std::string>{"a start", "b start"}));
  EXPECT_TRUE(runtime.started());
  EXPECT_FALSE(runtime.stopped());

  runtime.stop();
  runtime.stop();
  EXPECT_EQ(log, (std::vector<std::string>{"a start", "b start", "b stop", "a stop"}));
  EXPECT_TRUE(runtime.stopped());
}

}  // namespace
