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
using order = cdl::task_handler_order;

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

std::vector<unsigned long> sequences(const cdl::task_dispatcher& dispatcher, unsigned long version) {
  std::vector<unsigned long> result;
  for (const auto& m : dispatcher.handlers(cdl::task_type::identify<parcel>(), version)) {
    result.push_back(m->sequence());
  }
  return result;
}

TEST(TaskRegistration, ChannelFilesHandlersOnItsOwnWorkerByClassAndVersion) {
  cdl::core core;
  cdl::worker_group workers(core, {2, "dispatch test"});
  cdl::task_listener_group listeners(workers);
  cdl::task_channel& channel = listeners.task_channel(1);
  recorder r;
  channel.register_task_handler(&recorder::normal_a, &r, order::normal, VERSION);
  channel.register_task_handler(&recorder::normal_b, &r, order::normal, VERSION);
  channel.register_task_handler(&recorder::normal_a, &r, order::normal, VERSION + 1);
  const auto& dispatchers = *channel.dispatchers();
  EXPECT_EQ(dispatchers[0].handler_count(cdl::task_type::identify<parcel>(), VERSION), 0u);
  EXPECT_EQ(sequences(dispatchers[1], VERSION).size(), 2u);
  EXPECT_EQ(sequences(dispatchers[1], VERSION + 1).size(), 1u);
  EXPECT_EQ(channel.registered_types().count({cdl::task_type::identify<parcel>(), VERSION + 1}), 1u);
}

TEST(TaskRegistration, RunningOrderSequencesAndBaseClassHandlers) {
  cdl::core core;
  cdl::task_dispatcher dispatcher;
  recorder r;
  const unsigned long start = cdl::task_dispatcher::counter;
  dispatcher.register_task_handler(&recorder::normal_a, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::last_a, &r, order::last, VERSION);
  dispatcher.register_task_handler(&recorder::first, &r, order::first, VERSION);
  dispatcher.register_task_handler(&recorder::last_b, &r, order::last, VERSION);
  dispatcher.register_task_handler(&recorder::normal_b, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::on_express, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::failing, &r, order::first, VERSION + 1);

  const unsigned long max = std::numeric_limits<unsigned long>::max();
  EXPECT_EQ(sequences(dispatcher, VERSION),
            (std::vector<unsigned long>{start + 2, start, start + 4, max - (start + 3), max - (start + 1)}));
  cdl::task_ptr<cdl::task> t = cdl::memory_pool<parcel>::make();
  dispatcher.dispatch(t, core, "test");
  EXPECT_EQ(r.calls, (std::vector<std::string>{"first", "normal_a", "normal_b", "last_b", "last_a"}));
  EXPECT_TRUE(t);

  // A subclass task reaches the base class's handlers too.
  r.calls.clear();
  cdl::task_ptr<cdl::task> e = cdl::memory_pool<express_parcel>::make();
  dispatcher.dispatch(e, core, "test");
  EXPECT_EQ(r.calls, (std::vector<std::string>{"first", "normal_a", "normal_b", "express", "last_b", "last_a"}));
  EXPECT_EQ(core.failures(), 0u);
}

TEST(TaskRegistration, FailuresAreCountedAndAKeptTaskSkipsLaterHandlers) {
  cdl::core core;
  cdl::task_dispatcher dispatcher;
  recorder r;
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

TEST(TaskMapping, HandsTheTaskBackUnlessTheHandlerKeptItAndRejectsAnEmptyHandle) {
  cdl::task_ptr<parcel> elsewhere;
  for (const bool keep : {false, true}) {
    for (const bool raise : {false, true}) {
      SCOPED_TRACE(std::string(keep ? "keeps" : "leaves") + (raise ? ", throws" : ""));
      elsewhere.clear();
      cdl::task_mapping<parcel> mapping(
          [&](cdl::task_ptr<parcel>& t) {
            if (keep) elsewhere = std::move(t);
            if (raise) throw std::logic_error("boom");
          },
          order::normal, 0);
      cdl::task_ptr<cdl::task> t = cdl::memory_pool<parcel>::make(1);
      cdl::task* object = t.get();
      if (raise) {
        EXPECT_THROW(mapping.dispatch(t), std::logic_error);
      } else {
        mapping.dispatch(t);
      }
      EXPECT_EQ(t.get(), keep ? nullptr : object);
      EXPECT_EQ(static_cast<cdl::task*>(elsewhere.get()), keep ? object : nullptr);
    }
  }
  cdl::task_mapping<parcel> mapping([](cdl::task_ptr<parcel>&) { ADD_FAILURE() << "called"; }, order::normal, 0);
  cdl::task_ptr<cdl::task> empty;
  faitra_test::expect_cdl_exception([&] { mapping.dispatch(empty); },
                                    "Could not dispatch a task (dispatch_test.parcel). It is a nullptr.",
                                    "task_mapping.hpp", 240);
}

TEST(RuntimeCallbacks, StartInRegistrationOrderStopInReverseEachOnce) {
  std::vector<std::string> log;
  struct component {
    std::string label;
    std::vector<std::string>* log;
    void start() { log->push_back(label + " start"); }
    void stop() { log->push_back(label + " stop"); }
  } a{"a", &log}, b{"b", &log};
  cdl::runtime runtime;
  runtime.register_start_callback(&component::start, &a);
  runtime.register_stop_callback(&component::stop, &a);
  runtime.register_start_callback(&component::start, &b);
  runtime.register_stop_callback(&component::stop, &b);
  runtime.start();
  runtime.start();
  runtime.stop();
  runtime.stop();
  EXPECT_EQ(log, (std::vector<std::string>{"a start", "b start", "b stop", "a stop"}));
}

}  // namespace
