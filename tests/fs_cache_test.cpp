// The capture catalogue: its five indexes across insert, update and both
// deletions (with the leftovers they keep on purpose), time queries, the
// null-record assertion, and use from several threads at once.
#include <csl/fs_cache.hpp>

#include "support/lock_probe.hpp"
#include "support/records.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using csl::fs_cache;
using csl::fs_entry;
using faitra_test::record;
using faitra_test::shared_record;
using deletion = fs_entry::deletion_by;
using std::nullopt;

constexpr unsigned long max_ts = 18446744073709551615UL;

std::vector<std::string> paths_of(const std::vector<fs_entry>& entries) {
  std::vector<std::string> paths;
  for (const auto& e : entries) paths.push_back(e.path);
  return paths;
}

std::vector<std::string> by_time_paths(const fs_cache& cache, unsigned long start, unsigned long end) {
  std::vector<fs_entry> out;
  cache.by_time(out, start, end);
  return paths_of(out);
}

// The path the key index gives for `key`, or "" when the key is not indexed.
std::string holder_of(const fs_cache& cache, const std::string& key) {
  fs_cache::guard lock(cache);
  const auto it = cache.key_cache().find(key);
  return it == cache.key_cache().end() ? std::string() : it->second->path;
}

size_t entries_at(const fs_cache::ts_index& index, unsigned long ts) { return index.count(ts); }

struct check_options {
  // Records may share a key, so a keyed record need not be the key's holder.
  bool every_key_reachable;
  // delete_by_time leaves creation and end entries of the records it removed.
  bool time_leftovers;
};
constexpr check_options strict{true, false};
constexpr check_options keys_shared{false, false};
constexpr check_options after_time_delete{true, true};

// Describes the first broken index invariant, or returns "".
std::string broken_invariant(const fs_cache& cache, check_options options = strict) {
  fs_cache::guard lock(cache);
  const auto& paths = cache.path_cache();
  auto catalogued = [&](const fs_entry* e) {
    const auto it = paths.find(e->path);
    return it != paths.end() && it->second.get() == e;
  };
  auto check_ts_index = [&](const char* name, const fs_cache::ts_index& index, auto field,
                            bool leftovers_allowed) -> std::string {
    for (const auto& [ts, e] : index) {
      const cdl::nullable<unsigned long> value = field(*e);
      if (value.is_null() || *value != ts) return std::string(name) + " entry out of date for " + e->path;
      if (!catalogued(e.get()) && !leftovers_allowed) return std::string(name) + " entry left for " + e->path;
    }
    return "";
  };
  auto creation = [](const fs_entry& e) { return cdl::nullable<unsigned long>(e.creation_ts); };
  auto start = [](const fs_entry& e) { return e.start_ts; };
  auto end = [](const fs_entry& e) { return e.end_ts; };
  for (const auto& problem :
       {check_ts_index("creation", cache.creation_ts_cache(), creation, options.time_leftovers),
        check_ts_index("start", cache.start_ts_cache(), start, false),
        check_ts_index("end", cache.end_ts_cache(), end, options.time_leftovers)}) {
    if (!problem.empty()) return problem;
  }
  for (const auto& [key, e] : cache.key_cache()) {
    if (e->key.is_null() || *e->key != key) return "key entry out of date for " + e->path;
    if (!catalogued(e.get())) return "key entry left for " + e->path;
  }
  auto occurrences = [](const fs_cache::ts_index& index, const fs_entry* e) {
    return std::count_if(index.begin(), index.end(), [e](const auto& kv) { return kv.second.get() == e; });
  };
  for (const auto& [path, e] : paths) {
    if (path != e->path) return "path entry keyed wrongly for " + e->path;
    if (occurrences(cache.creation_ts_cache(), e.get()) != 1) return "creation entries wrong for " + e->path;
    if (occurrences(cache.start_ts_cache(), e.get()) != (e->start_ts.is_null() ? 0 : 1)) {
      return "start entries wrong for " + e->path;
    }
    if (occurrences(cache.end_ts_cache(), e.get()) != (e->end_ts.is_null() ? 0 : 1)) {
      return "end entries wrong for " + e->path;
    }
    if (options.every_key_reachable && !e->key.is_null()) {
      const auto it = cache.key_cache().find(*e->key);
      if (it == cache.key_cache().end() || it->second != e) return "key not reachable for " + e->path;
    }
  }
  return "";
}

TEST(FsCacheInsert, IndexesEveryRecordAndRefusesADuplicatePath) {
  fs_cache cache;
  EXPECT_TRUE(cache.insert(shared_record("/c/a", "ka", 0, nullopt, nullopt, 1)));
  EXPECT_TRUE(cache.insert(shared_record("/c/b", "kb", 20, 5, 9, 2)));
  EXPECT_TRUE(cache.insert(shared_record("/c/c", nullopt, 10, 5, nullopt, 3)));
  EXPECT_TRUE(cache.insert(shared_record("/c/d", "kd", 10, 3, 8, 4)));
  EXPECT_EQ(broken_invariant(cache), "");
  EXPECT_EQ(cache.size(), 4UL);
  EXPECT_EQ(cache.first_creation_ts(), 0UL);
  EXPECT_EQ(by_time_paths(cache, 0, max_ts), (std::vector<std::string>{"/c/d", "/c/b", "/c/c"}));

  // Same path, other metadata: refused, nothing changes.
  auto duplicate = shared_record("/c/b", "kz", 1, 1, 1, 99);
  EXPECT_FALSE(cache.insert(std::move(duplicate)));
  EXPECT_EQ(broken_invariant(cache), "");
  EXPECT_EQ(cache.size(), 4UL);
  EXPECT_EQ(holder_of(cache, "kz"), "");
  fs_entry out;
  ASSERT_TRUE(cache.by_path(out, "/c/b"));
  EXPECT_EQ(out.to_str(), "path: /c/b, key: kb, creation_ts: 20, start_ts: 5, end_ts: 9, file_size: 2, ");

  // What by_path hands out is a copy.
  out.file_size = 1000;
  out.deletion.store(deletion::cleanup);
  ASSERT_TRUE(cache.by_path(out, "/c/b"));
  EXPECT_EQ(out.file_size, 2UL);
  EXPECT_FALSE(out.is_deletion_pending());
  EXPECT_FALSE(cache.by_path(out, "/c/none"));
  EXPECT_TRUE(cache.path_exists("/c/a"));
  EXPECT_FALSE(cache.path_exists("/c"));
}

TEST(FsCacheInsert, NullRecordIsRefusedBeforeLocking) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/n/a", "k", 1, 1, 1)));
  // With a shared guard held, taking the lock first would fail as an upgrade.
  fs_cache::shared_guard reader(cache);
  try {
    cache.insert(nullptr);
    ADD_FAILURE() << "null record accepted";
  } catch (const cdl::assertion_failure& e) {
    EXPECT_STREQ(e.what(), "entry is null");
    EXPECT_EQ(e.file(), "fs_cache.cpp");
    EXPECT_EQ(e.line(), 26UL);
  }
  EXPECT_EQ(cache.size(), 1UL);
}

TEST(FsCacheUpdate, MovesTheRecordWithinEachIndex) {
  fs_cache cache;
  for (const char* p : {"/u/x", "/u/y", "/u/z"}) {
    ASSERT_TRUE(cache.insert(shared_record(p, std::string("k") + p, 7, 5, 9, 1)));
  }
  auto y = record("/u/y", "k/u/y", 7, 5, 9, 1);
  auto step = [&](const char* what) {
    EXPECT_TRUE(cache.update(y)) << what;
    EXPECT_EQ(broken_invariant(cache), "") << what;
    fs_entry stored;
    EXPECT_TRUE(cache.by_path(stored, "/u/y")) << what;
    EXPECT_EQ(stored.to_str(), y.to_str()) << what;
  };

  // From a run of equal timestamps, exactly y's entry must move.
  y.start_ts = 9UL;
  step("start 5 -> 9");
  EXPECT_EQ(by_time_paths(cache, 6, 10), (std::vector<std::string>{"/u/y"}));
  EXPECT_EQ(by_time_paths(cache, 0, 5), (std::vector<std::string>{"/u/x", "/u/z"}));

  y.start_ts = cdl::nullable<unsigned long>();
  step("start -> null");
  EXPECT_EQ(by_time_paths(cache, 0, max_ts), (std::vector<std::string>{"/u/x", "/u/z"}));
  EXPECT_TRUE(cache.path_exists("/u/y"));

  y.creation_ts = 1;
  step("creation 7 -> 1");
  EXPECT_EQ(cache.first_creation_ts(), 1UL);

  y.end_ts = 4UL;
  step("end 9 -> 4");
  y.end_ts = cdl::nullable<unsigned long>();
  step("end -> null");

  y.key = std::string("renamed");
  step("new key");
  EXPECT_EQ(holder_of(cache, "renamed"), "/u/y");
  EXPECT_EQ(holder_of(cache, "k/u/y"), "");
  y.key = cdl::nullable<std::string>();
  step("key -> null");
  EXPECT_EQ(holder_of(cache, "renamed"), "");

  y.start_ts = 5UL;
  y.file_size = 77;
  y.deletion.store(deletion::cleanup);
  step("marked, back to start 5");
  EXPECT_EQ(by_time_paths(cache, 5, 5), (std::vector<std::string>{"/u/x", "/u/z", "/u/y"}));
  fs_entry stored;
  ASSERT_TRUE(cache.by_path(stored, "/u/y"));
  EXPECT_EQ(stored.deletion.load(), deletion::cleanup);
  EXPECT_EQ(stored.file_size, 77UL);

  y.deletion.store(deletion::none);
  step("mark cleared");
  ASSERT_TRUE(cache.by_path(stored, "/u/y"));
  EXPECT_FALSE(stored.is_deletion_pending());

  EXPECT_FALSE(cache.update(record("/u/new", "kn", 1, 1, 1)));
  EXPECT_FALSE(cache.path_exists("/u/new"));
  EXPECT_EQ(holder_of(cache, "kn"), "");
  EXPECT_EQ(cache.size(), 3UL);
}

TEST(FsCacheKeys, InsertTakesOverAKeyUpdateDoesNot) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/k/old", "shared", 1, 1, nullopt)));
  ASSERT_TRUE(cache.insert(shared_record("/k/new", "shared", 2, 2, nullopt)));
  EXPECT_EQ(holder_of(cache, "shared"), "/k/new");

  // Deleting the newer one by path drops the key: the older is unreachable.
  ASSERT_TRUE(cache.delete_by_path(nullptr, "/k/new"));
  EXPECT_EQ(holder_of(cache, "shared"), "");
  fs_entry old;
  ASSERT_TRUE(cache.by_path(old, "/k/old"));
  EXPECT_EQ(*old.key, "shared");
  EXPECT_EQ(broken_invariant(cache, keys_shared), "");

  ASSERT_TRUE(cache.insert(shared_record("/k/first", "k1", 3, nullopt, nullopt)));
  ASSERT_TRUE(cache.insert(shared_record("/k/second", "k2", 4, nullopt, nullopt)));
  ASSERT_TRUE(cache.update(record("/k/second", "k1", 4, nullopt, nullopt)));
  EXPECT_EQ(holder_of(cache, "k1"), "/k/first");
  EXPECT_EQ(holder_of(cache, "k2"), "");
  fs_entry second;
  ASSERT_TRUE(cache.by_path(second, "/k/second"));
  EXPECT_EQ(*second.key, "k1");

  // Deleting a record removes the entry of its key, whoever holds it.
  ASSERT_TRUE(cache.delete_by_path(nullptr, "/k/second"));
  EXPECT_EQ(holder_of(cache, "k1"), "");
  EXPECT_TRUE(cache.path_exists("/k/first"));
  EXPECT_EQ(broken_invariant(cache, keys_shared), "");
}

TEST(FsCacheDelete, ByPathRemovesTheRecordFromEveryIndex) {
  fs_cache cache;
  for (const char* p : {"/d/a", "/d/b", "/d/c", "/d/e"}) {
    ASSERT_TRUE(cache.insert(shared_record(p, std::string("k") + p, 4, 6, 8, 10)));
  }
  auto marked = shared_record("/d/m", "km", 4, 6, 8, 10);
  marked->deletion.store(deletion::requested);
  ASSERT_TRUE(cache.insert(std::move(marked)));

  fs_entry out("untouched");
  EXPECT_FALSE(cache.delete_by_path(&out, "/d/none"));
  EXPECT_EQ(out.path, "untouched");

  ASSERT_TRUE(cache.delete_by_path(&out, "/d/b"));
  EXPECT_EQ(out.to_str(), "path: /d/b, key: k/d/b, creation_ts: 4, start_ts: 6, end_ts: 8, file_size: 10, ");
  EXPECT_EQ(broken_invariant(cache), "");
  EXPECT_FALSE(cache.path_exists("/d/b"));
  EXPECT_EQ(by_time_paths(cache, 6, 6), (std::vector<std::string>{"/d/a", "/d/c", "/d/e", "/d/m"}));

  ASSERT_TRUE(cache.delete_(record("/d/c", nullopt, 0, nullopt, nullopt)));
  ASSERT_TRUE(cache.delete_(out, fs_entry("/d/m")));
  EXPECT_EQ(out.path, "/d/m");
  EXPECT_EQ(out.deletion.load(), deletion::requested);
  EXPECT_FALSE(cache.delete_(fs_entry("/d/m")));
  ASSERT_TRUE(cache.delete_by_path(nullptr, "/d/e"));
  EXPECT_EQ(broken_invariant(cache), "");
  EXPECT_EQ(cache.size(), 1UL);
  EXPECT_EQ(by_time_paths(cache, 0, max_ts), (std::vector<std::string>{"/d/a"}));

  ASSERT_TRUE(cache.delete_by_path(nullptr, "/d/a"));
  EXPECT_EQ(cache.first_creation_ts(), 9223372036854775807UL);
  EXPECT_EQ(broken_invariant(cache), "");
}

TEST(FsCacheTime, ByTimeSelectsInclusiveStartRangesAndAppends) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/t/10", nullopt, 0, 10, 500)));
  ASSERT_TRUE(cache.insert(shared_record("/t/20b", nullopt, 0, 20, 1)));
  ASSERT_TRUE(cache.insert(shared_record("/t/20a", nullopt, 0, 20, nullopt)));
  ASSERT_TRUE(cache.insert(shared_record("/t/30", nullopt, 0, 30, nullopt)));
  ASSERT_TRUE(cache.insert(shared_record("/t/nostart", nullopt, 0, nullopt, 20)));

  struct row {
    unsigned long start, end;
    std::vector<std::string> paths;
  };
  const std::vector<row> rows = {
      {10, 30, {"/t/10", "/t/20b", "/t/20a", "/t/30"}},
      {11, 29, {"/t/20b", "/t/20a"}},
      {20, 20, {"/t/20b", "/t/20a"}},
      {30, 30, {"/t/30"}},
      {30, max_ts, {"/t/30"}},
      {0, 10, {"/t/10"}},
      {21, 29, {}},
      {0, 9, {}},
      {31, max_ts, {}},
  };
  for (const auto& r : rows) {
    std::vector<fs_entry> out{fs_entry("kept")};
    EXPECT_EQ(cache.by_time(out, r.start, r.end), !r.paths.empty()) << r.start << ".." << r.end;
    std::vector<std::string> expected{"kept"};
    expected.insert(expected.end(), r.paths.begin(), r.paths.end());
    EXPECT_EQ(paths_of(out), expected) << r.start << ".." << r.end;
  }
}

TEST(FsCacheTime, DeleteByTimeLeavesCreationAndEndEntriesUntilClear) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/x/a", "ka", 100, 1, 50)));
  ASSERT_TRUE(cache.insert(shared_record("/x/b", "kb", 3, 5, 60)));
  ASSERT_TRUE(cache.insert(shared_record("/x/c", nullopt, 200, 5, nullopt)));
  ASSERT_TRUE(cache.insert(shared_record("/x/d", "kd", 300, 10, 70)));
  ASSERT_TRUE(cache.insert(shared_record("/x/n", "kn", 400, nullopt, 7)));

  std::vector<fs_entry> out{fs_entry("kept")};
  EXPECT_FALSE(cache.delete_by_time(&out, 11, 1000));
  EXPECT_FALSE(cache.delete_by_time(&out, 2, 4));
  EXPECT_EQ(paths_of(out), (std::vector<std::string>{"kept"}));
  EXPECT_EQ(cache.size(), 5UL);

  ASSERT_TRUE(cache.delete_by_time(&out, 5, 10));
  EXPECT_EQ(paths_of(out), (std::vector<std::string>{"kept", "/x/b", "/x/c", "/x/d"}));
  EXPECT_EQ(out[1].to_str(), "path: /x/b, key: kb, creation_ts: 3, start_ts: 5, end_ts: 60, file_size: 0, ");
  EXPECT_EQ(cache.size(), 2UL);
  for (const char* gone : {"/x/b", "/x/c", "/x/d"}) EXPECT_FALSE(cache.path_exists(gone)) << gone;
  EXPECT_EQ(holder_of(cache, "kb"), "");
  EXPECT_EQ(holder_of(cache, "kd"), "");
  EXPECT_EQ(holder_of(cache, "ka"), "/x/a");
  EXPECT_EQ(by_time_paths(cache, 0, max_ts), (std::vector<std::string>{"/x/a"}));
  EXPECT_EQ(broken_invariant(cache, after_time_delete), "");

  // The removed records stay in the creation and end indexes.
  EXPECT_EQ(cache.first_creation_ts(), 3UL);
  {
    fs_cache::guard lock(cache);
    ASSERT_EQ(entries_at(cache.end_ts_cache(), 60), 1UL);
    EXPECT_EQ(cache.end_ts_cache().find(60)->second->path, "/x/b");
    EXPECT_EQ(cache.creation_ts_cache().size(), 5UL);
    EXPECT_EQ(cache.end_ts_cache().size(), 4UL);
  }

  // A new record under a removed one's path and timestamps is independent.
  ASSERT_TRUE(cache.insert(shared_record("/x/b", "kb", 3, 5, 60)));
  ASSERT_TRUE(cache.delete_by_path(nullptr, "/x/b"));
  EXPECT_EQ(cache.first_creation_ts(), 3UL);
  EXPECT_EQ(broken_invariant(cache, after_time_delete), "");

  EXPECT_TRUE(cache.delete_by_time(nullptr, 1, 1));
  EXPECT_EQ(cache.size(), 1UL);

  // clear() empties all but the end index and reports the catalogue's size.
  EXPECT_EQ(cache.clear(), 1UL);
  EXPECT_EQ(cache.size(), 0UL);
  EXPECT_EQ(cache.first_creation_ts(), 9223372036854775807UL);
  {
    fs_cache::guard lock(cache);
    EXPECT_TRUE(cache.key_cache().empty());
    EXPECT_TRUE(cache.creation_ts_cache().empty());
    EXPECT_TRUE(cache.start_ts_cache().empty());
    EXPECT_TRUE(cache.path_cache().empty());
    EXPECT_EQ(cache.end_ts_cache().size(), 4UL);
  }
  EXPECT_EQ(cache.clear(), 0UL);
  ASSERT_TRUE(cache.insert(shared_record("/x/a", "ka", 9, 9, 50)));
  EXPECT_EQ(cache.first_creation_ts(), 9UL);
  EXPECT_EQ(holder_of(cache, "ka"), "/x/a");
}

// The very record object that a time deletion left in the creation and end
// indexes, inserted again: its leftover entries must be replaced, not
// doubled, even though a freshly made record skips the removal walks.
TEST(FsCacheTime, ReinsertingARecordLeftByATimeDeletionKeepsOneEntryPerIndex) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/y/other", "ko", 7, 4, 9)));
  auto kept = shared_record("/y/a", "ka", 7, 5, 9);
  std::shared_ptr<fs_entry> handed_over = kept;
  ASSERT_TRUE(cache.insert(std::move(handed_over)));
  ASSERT_TRUE(cache.delete_by_time(nullptr, 5, 5));
  ASSERT_EQ(broken_invariant(cache, after_time_delete), "");

  ASSERT_TRUE(cache.insert(std::move(kept)));
  EXPECT_EQ(broken_invariant(cache, strict), "");
  fs_cache::guard lock(cache);
  EXPECT_EQ(entries_at(cache.creation_ts_cache(), 7), 2UL);
  EXPECT_EQ(entries_at(cache.end_ts_cache(), 9), 2UL);
}

// Index nodes come from the catalogue's own arena and are recycled; a copy
// of an index must not share that arena, or the catalogue's later churn
// would overwrite the copy's nodes.
TEST(FsCacheArena, ChurnKeepsTheIndexesWholeAndCopiesStayIndependent) {
  fs_cache cache;
  constexpr unsigned long count = 3000;
  auto path_of = [](unsigned long i) { return "/z/" + std::to_string(i); };
  for (unsigned long i = 0; i < count; ++i) {
    ASSERT_TRUE(cache.insert(shared_record(path_of(i), "k" + std::to_string(i), i % 17, i, i + 1)));
  }
  for (unsigned long i = 0; i < count; i += 2) ASSERT_TRUE(cache.delete_by_path(nullptr, path_of(i)));
  ASSERT_TRUE(cache.delete_by_time(nullptr, 1001, 1999));
  ASSERT_EQ(broken_invariant(cache, after_time_delete), "");

  fs_cache::path_index copy = [&] {
    fs_cache::guard lock(cache);
    return fs_cache::path_index(cache.path_cache());
  }();
  const size_t copied = copy.size();
  EXPECT_EQ(copied, cache.size());

  cache.clear();
  for (unsigned long i = 0; i < count; ++i) {
    ASSERT_TRUE(cache.insert(shared_record("/w/" + std::to_string(i), "n" + std::to_string(i), i, i, i)));
  }
  EXPECT_EQ(broken_invariant(cache, after_time_delete), "");
  EXPECT_EQ(cache.size(), count);
  ASSERT_EQ(copy.size(), copied);
  for (const auto& [path, e] : copy) {
    ASSERT_EQ(path, e->path);
    ASSERT_EQ(path.substr(0, 3), "/z/");
  }
}

TEST(FsCacheLocking, AGuardHolderMayCallEveryOperation) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/g/a", "ka", 1, 1, 1)));
  std::atomic<size_t> seen_by_reader{0};
  std::optional<faitra_test::lock_probe> reader;
  {
    fs_cache::guard lock(cache);
    reader.emplace([&] { seen_by_reader = cache.size(); }, [] {});
    EXPECT_TRUE(reader->blocked());

    EXPECT_EQ(cache.clear(), 1UL);
    ASSERT_TRUE(cache.insert(shared_record("/g/b", "kb", 2, 2, 2)));
    ASSERT_TRUE(cache.insert(shared_record("/g/c", "kc", 3, 3, 3)));
    ASSERT_TRUE(cache.update(record("/g/b", "kb", 2, 4, 2)));
    EXPECT_TRUE(cache.delete_by_time(nullptr, 3, 3));
    ASSERT_TRUE(cache.insert(shared_record("/g/d", nullopt, 5, 5, 5)));
    EXPECT_TRUE(cache.delete_by_path(nullptr, "/g/d"));
    fs_entry out;
    EXPECT_TRUE(cache.by_path(out, "/g/b"));
    EXPECT_EQ(by_time_paths(cache, 0, 10), (std::vector<std::string>{"/g/b"}));
    EXPECT_TRUE(cache.path_exists("/g/b"));
    EXPECT_EQ(cache.first_creation_ts(), 2UL);
    EXPECT_EQ(cache.size(), 1UL);
    reader->releasing();
  }
  EXPECT_TRUE(reader->acquired_after_release());
  EXPECT_EQ(seen_by_reader.load(), 1UL);
}

TEST(FsCacheLocking, WritersUnderASharedGuardAreRefused) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/s/a", "ka", 1, 1, 1)));
  {
    fs_cache::shared_guard lock(cache);
    EXPECT_THROW(cache.update(record("/s/a", "kb", 2, 2, 2)), cdl::assertion_failure);
    EXPECT_THROW(cache.delete_by_path(nullptr, "/s/a"), cdl::assertion_failure);
    fs_entry out;
    EXPECT_TRUE(cache.by_path(out, "/s/a"));
    EXPECT_EQ(*out.key, "ka");
  }
  EXPECT_TRUE(cache.update(record("/s/a", "kb", 2, 2, 2)));
  EXPECT_EQ(holder_of(cache, "kb"), "/s/a");
}

// Every record the writers below store satisfies these relations, so a
// reader can tell a torn or stale copy from a real one.
fs_entry coherent(const std::string& path, unsigned long start) {
  return record(path, "key:" + path, start + 1, start, start + 2, start * 3);
}
bool is_coherent(const fs_entry& e) {
  return !e.start_ts.is_null() && !e.end_ts.is_null() && !e.key.is_null() && *e.key == "key:" + e.path &&
         e.creation_ts == *e.start_ts + 1 && *e.end_ts == *e.start_ts + 2 && e.file_size == *e.start_ts * 3;
}

TEST(FsCacheThreads, ReadersSeeWholeRecordsWhileWritersChangeTheIndex) {
  constexpr unsigned long stable = 16;     // always catalogued, start below 1000
  constexpr unsigned long churn_base = 1000000;
  constexpr int rounds = 300;
  fs_cache cache;
  auto stable_path = [](unsigned long i) { return "/live/s" + std::to_string(i); };
  for (unsigned long i = 0; i < stable; ++i) {
    ASSERT_TRUE(cache.insert(std::make_shared<fs_entry>(coherent(stable_path(i), i * 10))));
  }

  std::atomic<int> problems{0};
  std::atomic<int> writers_left{3};
  std::vector<std::thread> threads;
  // Moves the stable records around within [0, 1000).
  threads.emplace_back([&] {
    for (int r = 0; r < rounds; ++r) {
      const unsigned long i = static_cast<unsigned long>(r) % stable;
      if (!cache.update(coherent(stable_path(i), (i * 10 + static_cast<unsigned long>(r)) % 1000))) ++problems;
    }
    --writers_left;
  });
  // Adds and removes short-lived records, by path and by time.
  threads.emplace_back([&] {
    for (int r = 0; r < rounds; ++r) {
      const unsigned long ts = churn_base + static_cast<unsigned long>(r);
      const std::string path = "/live/c" + std::to_string(r);
      if (!cache.insert(std::make_shared<fs_entry>(coherent(path, ts)))) ++problems;
      if (r % 3 == 0 && !cache.delete_by_path(nullptr, path)) ++problems;
      if (r % 3 == 1) {
        std::vector<fs_entry> removed;
        if (!cache.delete_by_time(&removed, ts, ts) || removed.size() != 1 || removed[0].path != path) ++problems;
      }
    }
    --writers_left;
  });
  // Replaces stable records under one guard: readers never see them missing.
  threads.emplace_back([&] {
    for (int r = 0; r < rounds; ++r) {
      const std::string path = stable_path(static_cast<unsigned long>(r * 7) % stable);
      fs_cache::guard lock(cache);
      fs_entry old;
      if (!cache.delete_by_path(&old, path) || !cache.insert(std::make_shared<fs_entry>(old))) ++problems;
      if (cache.size() < stable) ++problems;
    }
    --writers_left;
  });
  for (int reader = 0; reader < 2; ++reader) {
    threads.emplace_back([&, reader] {
      for (int r = 0; r < rounds; ++r) {
        fs_entry one;
        if (!cache.by_path(one, stable_path(static_cast<unsigned long>(r + reader) % stable)) ||
            !is_coherent(one)) {
          ++problems;
        }
        std::vector<fs_entry> all;
        cache.by_time(all, 0, churn_base - 1);
        if (all.size() != stable || !std::all_of(all.begin(), all.end(), is_coherent) ||
            !std::is_sorted(all.begin(), all.end())) {
          ++problems;
        }
        if (cache.size() < stable || cache.first_creation_ts() >= churn_base) ++problems;
      }
    });
  }
  for (auto& t : threads) t.join();

  EXPECT_EQ(writers_left.load(), 0);
  EXPECT_EQ(problems.load(), 0);
  // A third of the short-lived records were never deleted.
  EXPECT_EQ(cache.size(), stable + rounds / 3);
  EXPECT_EQ(broken_invariant(cache, after_time_delete), "");
  std::vector<fs_entry> all;
  ASSERT_TRUE(cache.by_time(all, 0, max_ts));
  EXPECT_EQ(all.size(), stable + rounds / 3);
  EXPECT_TRUE(std::all_of(all.begin(), all.end(), is_coherent));
}

}  // namespace
