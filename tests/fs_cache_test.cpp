// The capture catalogue: the exact contents of its five indexes across insert,
// update and both deletions (with the leftovers they keep on purpose), time
// queries, the null-record assertion, locking, and use from several threads.
#include <csl/fs_cache.hpp>

#include "support/lock_probe.hpp"
#include "support/records.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using csl::fs_cache;
using csl::fs_entry;
using faitra_test::record;
using faitra_test::shared_record;
using std::nullopt;
constexpr unsigned long max_ts = ~0UL;

// Every index as "name ts:path ...", one line each (keys sorted).
std::string indexes(const fs_cache& cache) {
  fs_cache::guard lock(cache);
  std::string out;
  auto dump = [&](const char* name, const fs_cache::ts_index& index) {
    out += name;
    for (const auto& [ts, e] : index) out += " " + std::to_string(ts) + ":" + e->path;
    out += "\n";
  };
  dump("creation", cache.creation_ts_cache());
  dump("start", cache.start_ts_cache());
  dump("end", cache.end_ts_cache());
  out += "key";
  for (const auto& [k, e] : std::map<std::string_view, fs_cache::entry_ptr>(cache.key_cache().begin(),
                                                                           cache.key_cache().end())) {
    out += " " + std::string(k) + ":" + e->path;
  }
  out += "\npath";
  for (const auto& [p, e] : cache.path_cache()) out += " " + std::string(p) + (p == e->path ? "" : "(wrong)");
  return out;
}

std::vector<std::string> by_time_paths(const fs_cache& cache, unsigned long start, unsigned long end) {
  std::vector<fs_entry> out;
  cache.by_time(out, start, end);
  std::vector<std::string> paths;
  for (const auto& e : out) paths.push_back(e.path);
  return paths;
}

TEST(FsCache, InsertIndexesEveryRecordRefusesADuplicateAndHandsOutCopies) {
  fs_cache cache;
  EXPECT_EQ(cache.first_creation_ts(), 9223372036854775807UL);
  EXPECT_TRUE(cache.insert(shared_record("/a", "ka", 0, nullopt, nullopt, 1)));
  EXPECT_TRUE(cache.insert(shared_record("/b", "kb", 20, 5, 9, 2)));
  EXPECT_TRUE(cache.insert(shared_record("/c", nullopt, 10, 5, nullopt, 3)));
  EXPECT_FALSE(cache.insert(shared_record("/b", "kz", 1, 1, 1, 99)));
  EXPECT_EQ(indexes(cache),
            "creation 0:/a 10:/c 20:/b\nstart 5:/b 5:/c\nend 9:/b\nkey ka:/a kb:/b\npath /a /b /c");
  EXPECT_EQ(cache.size(), 3UL);
  EXPECT_EQ(cache.first_creation_ts(), 0UL);

  fs_entry out;
  ASSERT_TRUE(cache.by_path(out, "/b"));
  EXPECT_EQ(out.to_str(), "path: /b, key: kb, creation_ts: 20, start_ts: 5, end_ts: 9, file_size: 2, ");
  out.file_size = 1000;
  out.deletion.store(fs_entry::deletion_by::cleanup);
  ASSERT_TRUE(cache.by_path(out, "/b"));
  EXPECT_EQ(out.file_size, 2UL);
  EXPECT_FALSE(out.is_deletion_pending());
  EXPECT_FALSE(cache.by_path(out, "/none"));
  EXPECT_FALSE(cache.path_exists("/"));
}

TEST(FsCache, NullRecordIsRefusedBeforeLocking) {
  fs_cache cache;
  fs_cache::shared_guard reader(cache);  // taking the lock first would fail as an upgrade
  try {
    cache.insert(nullptr);
    ADD_FAILURE() << "null record accepted";
  } catch (const cdl::assertion_failure& e) {
    EXPECT_STREQ(e.what(), "entry is null");
    EXPECT_EQ(e.file(), "fs_cache.cpp");
    EXPECT_EQ(e.line(), 26UL);
  }
}

TEST(FsCache, UpdateMovesExactlyTheRecordsEntriesAndCanClearAMark) {
  fs_cache cache;
  for (const char* p : {"/x", "/y", "/z"}) ASSERT_TRUE(cache.insert(shared_record(p, std::string("k") + p, 7, 5, 9)));
  auto y = record("/y", "k/y", 7, 5, 9);
  const struct {
    std::function<void()> change;
    std::string expected;
  } steps[] = {
      {[&] { y.start_ts = 9UL; },  // the creation entry is always re-inserted
       "creation 7:/x 7:/z 7:/y\nstart 5:/x 5:/z 9:/y\nend 9:/x 9:/y 9:/z\nkey k/x:/x k/y:/y k/z:/z\npath /x /y /z"},
      {[&] { y.start_ts = cdl::nullable<unsigned long>(); y.end_ts = 4UL; y.creation_ts = 1; },
       "creation 1:/y 7:/x 7:/z\nstart 5:/x 5:/z\nend 4:/y 9:/x 9:/z\nkey k/x:/x k/y:/y k/z:/z\npath /x /y /z"},
      {[&] { y.key = std::string("new"); y.start_ts = 5UL; y.end_ts = cdl::nullable<unsigned long>(); },
       "creation 1:/y 7:/x 7:/z\nstart 5:/x 5:/z 5:/y\nend 9:/x 9:/z\nkey k/x:/x k/z:/z new:/y\npath /x /y /z"},
      // Update does not take a key over from its holder; the old key goes.
      {[&] { y.key = std::string("k/x"); },
       "creation 1:/y 7:/x 7:/z\nstart 5:/x 5:/z 5:/y\nend 9:/x 9:/z\nkey k/x:/x k/z:/z\npath /x /y /z"},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.expected);
    s.change();
    ASSERT_TRUE(cache.update(y));
    EXPECT_EQ(indexes(cache), s.expected);
    fs_entry stored;
    ASSERT_TRUE(cache.by_path(stored, "/y"));
    EXPECT_EQ(stored.to_str(), y.to_str());
  }
  EXPECT_EQ(by_time_paths(cache, 5, 5), (std::vector<std::string>{"/x", "/z", "/y"}));

  // The marker is copied both ways: set, then cleared.
  fs_entry stored;
  y.deletion.store(fs_entry::deletion_by::cleanup);
  ASSERT_TRUE(cache.update(y));
  ASSERT_TRUE(cache.by_path(stored, "/y"));
  EXPECT_EQ(stored.deletion.load(), fs_entry::deletion_by::cleanup);
  y.deletion.store(fs_entry::deletion_by::none);
  y.file_size = 77;
  ASSERT_TRUE(cache.update(y));
  ASSERT_TRUE(cache.by_path(stored, "/y"));
  EXPECT_FALSE(stored.is_deletion_pending());
  EXPECT_EQ(stored.file_size, 77UL);
  EXPECT_FALSE(cache.update(record("/new", "kn", 1, 1, 1)));
  EXPECT_FALSE(cache.path_exists("/new"));
}

TEST(FsCache, DeletionsAndTheLeftoversTheyKeep) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/a", "ka", 100, 1, 50)));
  ASSERT_TRUE(cache.insert(shared_record("/b", "kb", 3, 5, 60)));
  ASSERT_TRUE(cache.insert(shared_record("/c", nullopt, 200, 5, nullopt)));
  ASSERT_TRUE(cache.insert(shared_record("/d", "kd", 300, 10, 70)));
  ASSERT_TRUE(cache.insert(shared_record("/n", "kd", 400, nullopt, 7)));  // takes the key over
  EXPECT_NE(indexes(cache).find("\nkey ka:/a kb:/b kd:/n\n"), std::string::npos) << indexes(cache);

  fs_entry untouched("untouched");
  EXPECT_FALSE(cache.delete_by_path(&untouched, "/none"));
  EXPECT_EQ(untouched.path, "untouched");
  // Deleting the holder drops the key: the record that had it first is then
  // not reachable by key.
  ASSERT_TRUE(cache.delete_(untouched, fs_entry("/n")));
  EXPECT_EQ(untouched.path, "/n");
  EXPECT_FALSE(cache.delete_(fs_entry("/n")));

  std::vector<fs_entry> out{fs_entry("kept")};
  EXPECT_FALSE(cache.delete_by_time(&out, 11, 1000));
  EXPECT_FALSE(cache.delete_by_time(&out, 2, 4));
  ASSERT_TRUE(cache.delete_by_time(&out, 5, 10));
  ASSERT_EQ(out.size(), 4UL);
  EXPECT_EQ(out[0].path, "kept");
  EXPECT_EQ(out[1].to_str(), "path: /b, key: kb, creation_ts: 3, start_ts: 5, end_ts: 60, file_size: 0, ");
  EXPECT_EQ(out[3].path, "/d");
  // Deletion by time leaves the creation and end entries of what it removed.
  EXPECT_EQ(indexes(cache), "creation 3:/b 100:/a 200:/c 300:/d\nstart 1:/a\nend 50:/a 60:/b 70:/d\nkey ka:/a\npath /a");
  EXPECT_EQ(cache.size(), 1UL);
  EXPECT_EQ(cache.first_creation_ts(), 3UL);

  // clear() empties all but the end index and reports the catalogue's size.
  EXPECT_EQ(cache.clear(), 1UL);
  EXPECT_EQ(indexes(cache), "creation\nstart\nend 50:/a 60:/b 70:/d\nkey\npath");
  EXPECT_EQ(cache.first_creation_ts(), 9223372036854775807UL);
  EXPECT_EQ(cache.clear(), 0UL);
}

// The very record object that a time deletion left in the creation and end
// indexes, inserted again: its leftover entries must be replaced, not
// doubled, even though a freshly made record skips the removal walks.
TEST(FsCache, ReinsertingARecordLeftByATimeDeletionKeepsOneEntryPerIndex) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/y/other", "ko", 7, 4, 9)));
  auto kept = shared_record("/y/a", "ka", 7, 5, 9);
  std::shared_ptr<fs_entry> handed_over = kept;
  ASSERT_TRUE(cache.insert(std::move(handed_over)));
  ASSERT_TRUE(cache.delete_by_time(nullptr, 5, 5));
  ASSERT_TRUE(cache.insert(std::move(kept)));
  EXPECT_EQ(indexes(cache),
            "creation 7:/y/other 7:/y/a\nstart 4:/y/other 5:/y/a\nend 9:/y/other 9:/y/a\nkey ka:/y/a ko:/y/other\n"
            "path /y/a /y/other");
}

// Index nodes come from the catalogue's own arena and are recycled; a copy
// of an index must not share that arena, or the catalogue's later churn
// would overwrite the copy's nodes.
TEST(FsCache, ArenaChurnKeepsTheIndexesWholeAndCopiesStayIndependent) {
  fs_cache cache;
  constexpr unsigned long count = 3000;
  auto path_of = [](unsigned long i) { return "/z/" + std::to_string(i); };
  for (unsigned long i = 0; i < count; ++i) {
    ASSERT_TRUE(cache.insert(shared_record(path_of(i), "k" + std::to_string(i), i % 17, i, i + 1)));
  }
  for (unsigned long i = 0; i < count; i += 2) ASSERT_TRUE(cache.delete_by_path(nullptr, path_of(i)));
  ASSERT_TRUE(cache.delete_by_time(nullptr, 1001, 1999));

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
  EXPECT_EQ(cache.size(), count);
  EXPECT_EQ(indexes(cache).find("(wrong)"), std::string::npos);
  ASSERT_EQ(copy.size(), copied);
  for (const auto& [path, e] : copy) {
    ASSERT_EQ(path, e->path);
    ASSERT_EQ(path.substr(0, 3), "/z/");
  }
}

TEST(FsCache, ByTimeSelectsAnInclusiveStartRangeAndAppends) {
  fs_cache cache;
  for (const auto& [path, start] : {std::pair{"/10", 10UL}, {"/20b", 20UL}, {"/20a", 20UL}, {"/30", 30UL}}) {
    ASSERT_TRUE(cache.insert(shared_record(path, nullopt, 0, start, 500)));
  }
  ASSERT_TRUE(cache.insert(shared_record("/nostart", nullopt, 0, nullopt, 20)));
  const struct {
    unsigned long start, end;
    std::vector<std::string> paths;
  } rows[] = {
      {10, 30, {"kept", "/10", "/20b", "/20a", "/30"}}, {20, 20, {"kept", "/20b", "/20a"}},
      {30, max_ts, {"kept", "/30"}}, {0, 10, {"kept", "/10"}}, {21, 29, {"kept"}}, {31, max_ts, {"kept"}},
  };
  for (const auto& r : rows) {
    std::vector<fs_entry> out{fs_entry("kept")};
    EXPECT_EQ(cache.by_time(out, r.start, r.end), r.paths.size() > 1) << r.start << ".." << r.end;
    std::vector<std::string> paths;
    for (const auto& e : out) paths.push_back(e.path);
    EXPECT_EQ(paths, r.paths) << r.start << ".." << r.end;
  }
}

TEST(FsCache, AGuardHolderMayCallEveryOperationASharedHolderNoWriter) {
  fs_cache cache;
  ASSERT_TRUE(cache.insert(shared_record("/a", "ka", 1, 1, 1)));
  {
    fs_cache::shared_guard lock(cache);
    EXPECT_THROW(cache.update(record("/a", "kb", 2, 2, 2)), cdl::assertion_failure);
    EXPECT_THROW(cache.delete_by_path(nullptr, "/a"), cdl::assertion_failure);
    EXPECT_TRUE(cache.path_exists("/a"));
  }
  std::optional<faitra_test::lock_probe> reader;
  {
    fs_cache::guard lock(cache);
    reader.emplace([&] { cache.size(); }, [] {});
    EXPECT_TRUE(reader->blocked());
    EXPECT_EQ(cache.clear(), 1UL);
    ASSERT_TRUE(cache.insert(shared_record("/b", "kb", 2, 2, 2)));
    ASSERT_TRUE(cache.update(record("/b", "kb", 2, 4, 2)));
    EXPECT_TRUE(cache.delete_by_time(nullptr, 4, 4));
    EXPECT_EQ(cache.size(), 0UL);
    reader->releasing();
  }
  EXPECT_TRUE(reader->acquired_after_release());
}

TEST(FsCache, ReadersSeeWholeRecordsWhileWritersChangeTheIndex) {
  // Every stored record satisfies these relations, so a torn copy shows.
  auto coherent = [](const std::string& path, unsigned long start) {
    return record(path, "key:" + path, start + 1, start, start + 2, start * 3);
  };
  auto is_coherent = [](const fs_entry& e) {
    return !e.start_ts.is_null() && !e.end_ts.is_null() && !e.key.is_null() && *e.key == "key:" + e.path &&
           e.creation_ts == *e.start_ts + 1 && *e.end_ts == *e.start_ts + 2 && e.file_size == *e.start_ts * 3;
  };
  constexpr unsigned long stable = 16;
  constexpr unsigned long churn_base = 1000000;
  constexpr int rounds = 300;
  fs_cache cache;
  auto stable_path = [](unsigned long i) { return "/s" + std::to_string(i); };
  for (unsigned long i = 0; i < stable; ++i) {
    ASSERT_TRUE(cache.insert(std::make_shared<fs_entry>(coherent(stable_path(i), i * 10))));
  }
  std::atomic<int> problems{0};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {  // moves the stable records within [0, 1000)
    for (unsigned long r = 0; r < rounds; ++r) {
      if (!cache.update(coherent(stable_path(r % stable), (r % stable * 10 + r) % 1000))) ++problems;
    }
  });
  threads.emplace_back([&] {  // short-lived records, removed by path or by time
    for (unsigned long r = 0; r < rounds; ++r) {
      const std::string path = "/c" + std::to_string(r);
      if (!cache.insert(std::make_shared<fs_entry>(coherent(path, churn_base + r)))) ++problems;
      if (r % 3 == 0 && !cache.delete_by_path(nullptr, path)) ++problems;
      std::vector<fs_entry> removed;
      if (r % 3 == 1 && (!cache.delete_by_time(&removed, churn_base + r, churn_base + r) || removed.size() != 1)) {
        ++problems;
      }
    }
  });
  for (int reader = 0; reader < 2; ++reader) {
    threads.emplace_back([&] {
      for (int r = 0; r < rounds; ++r) {
        std::vector<fs_entry> all;
        cache.by_time(all, 0, churn_base - 1);
        if (all.size() != stable || !std::all_of(all.begin(), all.end(), is_coherent) ||
            !std::is_sorted(all.begin(), all.end()) || cache.first_creation_ts() >= churn_base) {
          ++problems;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(problems.load(), 0);
  EXPECT_EQ(cache.size(), stable + rounds / 3);
}

}  // namespace
