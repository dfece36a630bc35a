// Task handles, pools and identities, and the file-event task classes.
#include <cdl/task_ptr.hpp>
#include <csl/fs_events.hpp>

#include <support/test_task.hpp>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

// Counts constructions and destructions, so tests see every allocation and
// every disposal the pool makes.
class counted : public faitra_test::test_task<counted> {
 public:
  explicit counted(int value = 0) : test_task(1), value(value) { ++constructed; }
  ~counted() override { ++destroyed; }
  static const std::string& name_static() {
    static const std::string name = "task_ptr_test.counted";
    return name;
  }

  static inline int constructed = 0;
  static inline int destroyed = 0;
  int value;
};

// Puts another polymorphic base in front, so that a counted_child* and its
// cdl::task* differ in address: conversions must adjust the pointer.
struct leading_base {
  virtual ~leading_base() = default;
  long padding = 0;
};

class counted_child : public leading_base, public faitra_test::test_task<counted_child, counted> {
 public:
  using test_task::test_task;
  static const std::string& name_static() {
    static const std::string name = "task_ptr_test.counted_child";
    return name;
  }
};

class unrelated : public faitra_test::test_task<unrelated> {
 public:
  unrelated() : test_task(1) {}
  static const std::string& name_static() {
    static const std::string name = "task_ptr_test.unrelated";
    return name;
  }
};

// A handle whose disposal appends the object's value to `disposed`.
cdl::task_ptr<counted> logged(int value, std::vector<int>& disposed) {
  return cdl::task_ptr<counted>(new counted(value), [&disposed](counted* object, cdl::deleter_base* d) {
    disposed.push_back(object->value);
    delete object;
    delete d;
  });
}

template <typename T>
void expect_empty(const cdl::task_ptr<T>& handle) {
  EXPECT_FALSE(handle);
  EXPECT_EQ(handle.get(), nullptr);
  faitra_test::expect_cdl_exception([&] { (void)handle->version(); }, "Trying to access an empty task_ptr",
                                    "task_ptr.hpp", 96);
}

TEST(TaskPtr, MovingEmptiesTheSource) {
  auto source = cdl::memory_pool<counted>::make(5);
  counted* object = source.get();

  cdl::task_ptr<counted> constructed(std::move(source));
  expect_empty(source);
  EXPECT_EQ(constructed.get(), object);

  cdl::task_ptr<counted> assigned;
  assigned = std::move(constructed);
  expect_empty(constructed);
  EXPECT_EQ(assigned->value, 5);

  // Moving a handle onto itself changes nothing.
  auto& same = assigned;
  assigned = std::move(same);
  assigned.reset(std::move(same));
  EXPECT_EQ(assigned.get(), object);
}

TEST(TaskPtr, NullObjectIsRejected) {
  bool disposed = false;
  faitra_test::expect_cdl_exception(
      [&] {
        cdl::task_ptr<counted> handle(nullptr, [&disposed](counted*, cdl::deleter_base*) { disposed = true; });
      },
      "Both ptr and deleter_ptr must be set.", "task_ptr.hpp", 22);
  EXPECT_FALSE(disposed);
}

TEST(TaskPtr, ClearDisposesOnceAndEmptiesFirst) {
  std::vector<int> disposed;
  bool empty_while_disposing = false;
  cdl::task_ptr<counted> handle;
  handle = cdl::task_ptr<counted>(new counted(7), [&](counted* object, cdl::deleter_base* d) {
    empty_while_disposing = !handle;
    disposed.push_back(object->value);
    delete object;
    delete d;
  });

  handle.clear();
  handle.clear();
  EXPECT_EQ(disposed, std::vector<int>{7});
  EXPECT_TRUE(empty_while_disposing);
  expect_empty(handle);
}

TEST(TaskPtr, ResetDisposesTheOldObjectBeforeTakingTheNew) {
  std::vector<int> disposed;
  cdl::task_ptr<counted> target;
  cdl::task_ptr<counted> incoming = logged(2, disposed);
  bool target_empty_then = false;
  int incoming_value_then = -1;
  target = cdl::task_ptr<counted>(new counted(1), [&](counted* object, cdl::deleter_base* d) {
    target_empty_then = !target;
    incoming_value_then = incoming ? incoming->value : -1;
    disposed.push_back(object->value);
    delete object;
    delete d;
  });

  target.reset(std::move(incoming));
  EXPECT_EQ(disposed, std::vector<int>{1});
  EXPECT_TRUE(target_empty_then);
  EXPECT_EQ(incoming_value_then, 2);  // not yet taken when the old one went
  EXPECT_EQ(target->value, 2);
  expect_empty(incoming);

  // Resetting from an empty handle only disposes.
  target.reset(cdl::task_ptr<counted>());
  EXPECT_EQ(disposed, (std::vector<int>{1, 2}));
  expect_empty(target);
}

TEST(TaskPtr, ConvertsBetweenBaseAndDerived) {
  const int destroyed_before = counted::destroyed;
  auto child = cdl::memory_pool<counted_child>::make(9);
  counted_child* object = child.get();

  cdl::task_ptr<cdl::task> generic(std::move(child));
  expect_empty(child);
  EXPECT_EQ(generic.get(), static_cast<cdl::task*>(object));
  EXPECT_NE(static_cast<void*>(generic.get()), static_cast<void*>(object));

  cdl::task_ptr<counted> middle(std::move(generic));
  expect_empty(generic);
  cdl::task_ptr<counted_child> back;
  back.reset(std::move(middle));
  expect_empty(middle);
  ASSERT_EQ(back.get(), object);
  EXPECT_EQ(back->value, 9);

  // Disposal through a base handle destroys the object exactly once.
  cdl::task_ptr<cdl::task> again(std::move(back));
  again.clear();
  EXPECT_EQ(counted::destroyed - destroyed_before, 1);
}

TEST(TaskType, IdentityIsStablePerClassAndDistinctAcrossClasses) {
  const cdl::task_type& first = cdl::task_type::identify<counted>();
  EXPECT_EQ(&first, &cdl::task_type::identify<counted>());
  EXPECT_EQ(first.name(), "task_ptr_test.counted");
  EXPECT_EQ(first, cdl::task_type::identify_from_name("task_ptr_test.counted"));
  EXPECT_NE(first, cdl::task_type::identify<counted_child>());
  EXPECT_NE(first, cdl::task_type::identify<unrelated>());
  EXPECT_TRUE(first < cdl::task_type::identify<unrelated>() || cdl::task_type::identify<unrelated>() < first);
}

TEST(MemoryPool, EveryMakeAllocatesAndEveryDisposalFrees) {
  const int constructed_before = counted::constructed;
  const int destroyed_before = counted::destroyed;

  // More than the pool's capacity of 200, all alive at once.
  std::vector<cdl::task_ptr<counted>> alive;
  std::set<counted*> addresses;
  for (int i = 0; i < 250; ++i) {
    alive.push_back(cdl::memory_pool<counted>::make(i));
    addresses.insert(alive.back().get());
    EXPECT_EQ(alive.back()->value, i);
  }
  EXPECT_EQ(counted::constructed - constructed_before, 250);
  EXPECT_EQ(addresses.size(), 250u);
  EXPECT_EQ(counted::destroyed, destroyed_before);

  alive.clear();
  EXPECT_EQ(counted::destroyed - destroyed_before, 250);

  // Nothing is recycled: the next make constructs a new object.
  auto next = cdl::memory_pool<counted>::make(3);
  EXPECT_EQ(counted::constructed - constructed_before, 251);
  EXPECT_EQ(next->value, 3);
}

// ---------------------------------------------------------------------------
// File-event tasks

csl::fs_entry scanned_record() {
  csl::fs_entry record("/d/b.pcap");
  record.key = std::string("abc123");
  record.creation_ts = 11;
  record.start_ts = 12UL;
  record.end_ts = 13UL;
  record.file_size = 14;
  return record;
}

TEST(FileEventTasks, NamesTypesAndVersion) {
  const std::string path = "/d/a.pcap";
  csl::fs_entry record = scanned_record();
  struct named {
    cdl::task_ptr<cdl::task> task;
    std::string name;
  };
  std::vector<named> cases;
  cases.push_back({cdl::memory_pool<csl::fs_entry_created>::make(path), "fs_entry_created"});
  cases.push_back({cdl::memory_pool<csl::fs_entry_updated>::make(path), "fs_entry_updated"});
  cases.push_back({cdl::memory_pool<csl::fs_entry_deleted>::make(path), "fs_entry_deleted"});
  cases.push_back({cdl::memory_pool<csl::fs_entry_missing_xattr_at_init>::make(record),
                   "fs_entry_missing_xattr_at_init"});
  cases.push_back({cdl::memory_pool<csl::fs_entry_has_xattr_but_empty_at_init>::make(record),
                   "fs_entry_has_xattr_but_empty_at_init"});

  std::set<uint32_t> ids;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.task->name(), c.name);
    EXPECT_EQ(&c.task->name(), &c.task->name());  // computed once, stored
    EXPECT_EQ(c.task->type().name(), c.name);
    EXPECT_EQ(c.task->version(), csl::FS_EVENT_VERSION);
    ids.insert(c.task->type().id());
  }
  EXPECT_EQ(ids.size(), cases.size());

  // Handlers are filed under identify<T>(), tasks are matched by type():
  // the two must agree for the monitor's tasks.
  EXPECT_EQ(csl::fs_entry_created::name_static(), "fs_entry_created");
  EXPECT_EQ(csl::fs_entry_updated::name_static(), "fs_entry_updated");
  EXPECT_EQ(csl::fs_entry_deleted::name_static(), "fs_entry_deleted");
  EXPECT_EQ(cdl::task_type::identify<csl::fs_entry_created>(), cases[0].task->type());
  EXPECT_EQ(cdl::task_type::identify<csl::fs_entry_updated>(), cases[1].task->type());
  EXPECT_EQ(cdl::task_type::identify<csl::fs_entry_deleted>(), cases[2].task->type());
}

TEST(FileEventTasks, MonitorTaskCarriesOnlyThePath) {
  auto task = cdl::memory_pool<csl::fs_entry_created>::make(std::string("/d/a.pcap"));
  const csl::fs_entry& entry = task->entry;
  EXPECT_EQ(entry.path, "/d/a.pcap");
  EXPECT_TRUE(entry.key.is_null());
  EXPECT_TRUE(entry.start_ts.is_null());
  EXPECT_TRUE(entry.end_ts.is_null());
  EXPECT_EQ(entry.creation_ts, 0u);
  EXPECT_EQ(entry.file_size, 0u);
  EXPECT_EQ(entry.deletion.load(), csl::fs_entry::deletion_by::none);
}

TEST(FileEventTasks, ScanTaskCarriesACopyOfTheWholeRecord) {
  csl::fs_entry record = scanned_record();
  record.deletion.store(csl::fs_entry::deletion_by::requested);
  auto task = cdl::memory_pool<csl::fs_entry_missing_xattr_at_init>::make(record);

  // Changing the scanned record afterwards does not reach the task.
  record.key = std::string("changed");
  record.file_size = 99;

  const csl::fs_entry& entry = task->entry;
  EXPECT_EQ(entry.path, "/d/b.pcap");
  ASSERT_FALSE(entry.key.is_null());
  EXPECT_EQ(*entry.key, "abc123");
  EXPECT_EQ(entry.creation_ts, 11u);
  EXPECT_EQ(entry.start_ts, cdl::nullable<unsigned long>(12UL));
  EXPECT_EQ(entry.end_ts, cdl::nullable<unsigned long>(13UL));
  EXPECT_EQ(entry.file_size, 14u);
  EXPECT_EQ(entry.deletion.load(), csl::fs_entry::deletion_by::requested);
}

}  // namespace
