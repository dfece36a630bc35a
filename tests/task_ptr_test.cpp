// Task handles, pools and identities, and the file-event task classes.
#include <cdl/task_ptr.hpp>
#include <csl/fs_events.hpp>

#include <support/test_task.hpp>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

// Counts constructions and destructions, so every disposal is seen.
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

// Another polymorphic base in front, so a counted_child* and its cdl::task*
// differ in address: conversions must adjust the pointer.
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

template <typename T>
void expect_empty(const cdl::task_ptr<T>& handle) {
  EXPECT_FALSE(handle);
  faitra_test::expect_cdl_exception([&] { (void)handle->version(); }, "Trying to access an empty task_ptr",
                                    "task_ptr.hpp", 96);
}

TEST(TaskPtr, NullObjectIsRejected) {
  bool disposed = false;
  faitra_test::expect_cdl_exception(
      [&] { cdl::task_ptr<counted> h(nullptr, [&disposed](counted*, cdl::deleter_base*) { disposed = true; }); },
      "Both ptr and deleter_ptr must be set.", "task_ptr.hpp", 22);
  EXPECT_FALSE(disposed);
}

TEST(TaskPtr, ResetAndClearDisposeTheOldObjectFirstAndOnce) {
  std::vector<int> disposed;
  cdl::task_ptr<counted> target;
  cdl::task_ptr<counted> incoming;
  std::vector<std::string> seen_while_disposing;
  auto make = [&](int value) {
    return cdl::task_ptr<counted>(new counted(value), [&](counted* object, cdl::deleter_base* d) {
      seen_while_disposing.push_back(std::string(target ? "target set" : "target empty") +
                                     (incoming ? ", incoming set" : ", incoming empty"));
      disposed.push_back(object->value);
      delete object;
      delete d;
    });
  };
  target = make(1);
  incoming = make(2);
  target.reset(std::move(incoming));
  EXPECT_EQ(target->value, 2);
  expect_empty(incoming);
  target.clear();
  target.clear();
  EXPECT_EQ(disposed, (std::vector<int>{1, 2}));
  // The old object goes before the new one is taken; a handle is empty
  // while its object is disposed of.
  EXPECT_EQ(seen_while_disposing, (std::vector<std::string>{"target empty, incoming set",
                                                            "target empty, incoming empty"}));
  expect_empty(target);
}

TEST(TaskPtr, MovesAndConversionsKeepOneOwner) {
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
  ASSERT_EQ(back.get(), object);
  auto& same = back;
  back = std::move(same);  // onto itself: nothing changes
  EXPECT_EQ(back->value, 9);
  cdl::task_ptr<cdl::task> again(std::move(back));
  again.clear();
  EXPECT_EQ(counted::destroyed - destroyed_before, 1);
}

TEST(MemoryPool, EveryMakeAllocatesAndEveryDisposalFrees) {
  const int constructed_before = counted::constructed;
  const int destroyed_before = counted::destroyed;
  std::vector<cdl::task_ptr<counted>> alive;  // more than the pool's 200
  std::set<counted*> addresses;
  for (int i = 0; i < 250; ++i) {
    alive.push_back(cdl::memory_pool<counted>::make(i));
    addresses.insert(alive.back().get());
  }
  EXPECT_EQ(addresses.size(), 250u);
  alive.clear();
  EXPECT_EQ(counted::destroyed - destroyed_before, 250);
  auto next = cdl::memory_pool<counted>::make(3);  // nothing is recycled
  EXPECT_EQ(counted::constructed - constructed_before, 251);
}

TEST(FileEventTasks, NamesTypesVersionAndContents) {
  csl::fs_entry scanned("/d/b.pcap");
  scanned.key = std::string("abc123");
  scanned.file_size = 14;
  scanned.deletion.store(csl::fs_entry::deletion_by::requested);
  std::vector<std::pair<cdl::task_ptr<cdl::task>, std::string>> cases;
  cases.emplace_back(cdl::memory_pool<csl::fs_entry_created>::make(std::string("/d/a.pcap")), "fs_entry_created");
  cases.emplace_back(cdl::memory_pool<csl::fs_entry_updated>::make(std::string("/d/a.pcap")), "fs_entry_updated");
  cases.emplace_back(cdl::memory_pool<csl::fs_entry_deleted>::make(std::string("/d/a.pcap")), "fs_entry_deleted");
  cases.emplace_back(cdl::memory_pool<csl::fs_entry_missing_xattr_at_init>::make(scanned),
                     "fs_entry_missing_xattr_at_init");
  cases.emplace_back(cdl::memory_pool<csl::fs_entry_has_xattr_but_empty_at_init>::make(scanned),
                     "fs_entry_has_xattr_but_empty_at_init");
  scanned.key = std::string("changed");  // the scan tasks hold copies
  std::set<uint32_t> ids;
  for (const auto& [task, name] : cases) {
    EXPECT_EQ(task->name(), name);
    EXPECT_EQ(task->type().name(), name);
    EXPECT_EQ(task->version(), csl::FS_EVENT_VERSION);
    ids.insert(task->type().id());
  }
  EXPECT_EQ(ids.size(), cases.size());
  // Handlers are filed under identify<T>(), tasks matched by type().
  EXPECT_EQ(cdl::task_type::identify<csl::fs_entry_created>(), cases[0].first->type());
  EXPECT_EQ(cdl::task_type::identify<csl::fs_entry_updated>(), cases[1].first->type());
  EXPECT_EQ(cdl::task_type::identify<csl::fs_entry_deleted>(), cases[2].first->type());
  csl::fs_entry monitor_entry = static_cast<csl::fs_entry_created&>(*cases[0].first).entry;
  EXPECT_EQ(monitor_entry.to_str(), "path: /d/a.pcap, key: null, creation_ts: 0, start_ts: null, end_ts: null, "
                                    "file_size: 0, ");
  csl::fs_entry scan_entry = static_cast<csl::fs_entry_missing_xattr_at_init&>(*cases[3].first).entry;
  EXPECT_EQ(scan_entry.to_str(), "path: /d/b.pcap, key: abc123, creation_ts: 0, start_ts: null, end_ts: null, "
                                 "file_size: 14, ");
  EXPECT_EQ(scan_entry.deletion.load(), csl::fs_entry::deletion_by::requested);
}

}  // namespace
