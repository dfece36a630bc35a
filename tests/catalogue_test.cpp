// The capture catalogue and its record: the exact contents of the five
// indexes through a sequence of operations (with the leftovers kept on
// purpose), the node arena under churn, readers racing writers, and reading
// a record back from JSON.
#include <csl/fs_cache.hpp>

#include <cdl/exception.hpp>

#include "support/files.hpp"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>
#include <thread>

namespace {

using csl::fs_cache;
using csl::fs_entry;
using by = fs_entry::deletion_by;
using faitra_test::record;
const auto none = std::nullopt;

std::shared_ptr<fs_entry> shared(const fs_entry& e) { return std::make_shared<fs_entry>(e); }

// Every index as "name ts:path ...", one line each (keys sorted).
std::string indexes(const fs_cache& cache) {
  fs_cache::guard lock(cache);
  std::string out;
  for (const auto& [name, index] : {std::pair{"creation", &cache.creation_ts_cache()},
                                    {"start", &cache.start_ts_cache()}, {"end", &cache.end_ts_cache()}}) {
    out += name;
    for (const auto& [ts, e] : *index) out += " " + std::to_string(ts) + ":" + e->path;
    out += "\n";
  }
  out += "key";
  std::map<std::string, std::string> keys;  // the hash index walks in no order
  for (const fs_entry* e : cache.key_cache()) keys.emplace(*e->key, e->path);
  for (const auto& [k, p] : keys) out += " " + k + ":" + p;
  out += "\npath";
  // In path order, and found again by its path.
  for (const auto& e : cache.path_cache()) {
    out += " " + e->path + (cache.path_cache().lookup(e->path) == e.get() ? "" : "(wrong)");
  }
  return out;
}

std::string by_time(const fs_cache& cache, unsigned long start, unsigned long end) {
  std::vector<fs_entry> out{fs_entry("kept")};  // appended to
  const bool found = cache.by_time(out, start, end);
  std::string paths;
  for (const auto& e : out) paths += e.path + " ";
  return paths + (found ? "found" : "none");
}

TEST(FsCache, IndexesFollowEveryOperationAndKeepTheirDeliberateLeftovers) {
  fs_cache cache;
  const auto y = shared(record("/y", "ky", 7, 5, 9));  // its object stays reachable for the re-insert
  const struct {
    const char* what;
    std::function<void()> step;
    std::string expected;
  } steps[] = {
      {"inserts; a duplicate path is refused; the newest insert takes a key over; queries are inclusive",
       [&] {
         for (auto e : {shared(record("/x", "kx", 7, 5, 9)), y, shared(record("/z", "kz", 7, 5, 9)),
                        shared(record("/n", "kx", 8, none, none))}) {
           EXPECT_TRUE(cache.insert(std::move(e)));
         }
         EXPECT_FALSE(cache.insert(shared(record("/x", "dup", 1, 1, 1))));
         EXPECT_EQ(by_time(cache, 5, 5), "kept /x /y /z found");
         EXPECT_EQ(by_time(cache, 6, ~0UL) + ", " + by_time(cache, 5, 4), "kept none, kept none");
       },
       "creation 7:/x 7:/y 7:/z 8:/n\nstart 5:/x 5:/y 5:/z\nend 9:/x 9:/y 9:/z\nkey kx:/n ky:/y kz:/z\n"
       "path /n /x /y /z"},
      {"an update moves exactly its own entries past equal timestamps",
       [&] { EXPECT_TRUE(cache.update(record("/y", "ky2", 7, 6, 9))); },
       "creation 7:/x 7:/z 7:/y 8:/n\nstart 5:/x 5:/z 6:/y\nend 9:/x 9:/y 9:/z\nkey kx:/n ky2:/y kz:/z\n"
       "path /n /x /y /z"},
      {"an update does not take a key over, drops its old one, and copies the marker both ways",
       [&] {
         fs_entry z = record("/z", "kx", 7, 5, 9);
         for (const auto marker : {by::cleanup, by::none}) {  // the reconcile relies on this
           z.deletion = marker;
           EXPECT_TRUE(cache.update(z));
           EXPECT_TRUE(cache.by_path(z, "/z") && z.deletion.load() == marker);
         }
         EXPECT_FALSE(cache.update(fs_entry("/absent")));
       },
       "creation 7:/x 7:/y 7:/z 8:/n\nstart 5:/x 5:/z 6:/y\nend 9:/x 9:/y 9:/z\nkey kx:/n ky2:/y\npath /n /x /y /z"},
      {"deleting the key's holder leaves the key to no one",
       [&] { EXPECT_TRUE(cache.delete_by_path(nullptr, "/n")); },
       "creation 7:/x 7:/y 7:/z\nstart 5:/x 5:/z 6:/y\nend 9:/x 9:/y 9:/z\nkey ky2:/y\npath /x /y /z"},
      {"a time deletion leaves the creation and end entries",
       [&] {
         std::vector<fs_entry> out;
         EXPECT_TRUE(cache.delete_by_time(&out, 6, 6) && out.size() == 1 && out[0].path == "/y");
       },
       "creation 7:/x 7:/y 7:/z\nstart 5:/x 5:/z\nend 9:/x 9:/y 9:/z\nkey\npath /x /z"},
      {"that very record inserted again replaces its leftovers, not doubles them",
       [&] { EXPECT_TRUE(cache.insert(std::shared_ptr<fs_entry>(y))); },
       "creation 7:/x 7:/z 7:/y\nstart 5:/x 5:/z 6:/y\nend 9:/x 9:/z 9:/y\nkey ky2:/y\npath /x /y /z"},
      {"clear empties all but the end index", [&] { EXPECT_EQ(cache.clear(), 3u); },
       "creation\nstart\nend 9:/x 9:/z 9:/y\nkey\npath"},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.what);
    s.step();
    EXPECT_EQ(indexes(cache), s.expected);
  }
  EXPECT_EQ(cache.first_creation_ts(), fs_cache::NO_CREATION_TS);
}

// Churn through every removal path keeps the indexes whole; paths walk in
// byte order whatever their order of insertion, around and beyond the prefix
// the path order shares out; a copy of the path index keeps its records.
TEST(FsCache, ChurnKeepsIndexesWholeInPathOrderAndCopiesIndependent) {
  fs_cache cache;
  for (unsigned long i = 0; i < 3000; ++i) {
    ASSERT_TRUE(cache.insert(shared(record("/z/" + std::to_string(i), "/z/" + std::to_string(i), i % 17, i, i))));
  }
  for (unsigned long i = 0; i < 3000; i += 2) ASSERT_TRUE(cache.delete_by_path(nullptr, "/z/" + std::to_string(i)));
  ASSERT_TRUE(cache.delete_by_time(nullptr, 1001, 1999));
  const fs_cache::path_index copy = [&] {
    fs_cache::guard lock(cache);
    return fs_cache::path_index(cache.path_cache());
  }();
  ASSERT_EQ(copy.size(), cache.size());
  cache.clear();
  std::vector<std::string> paths;
  for (unsigned long i = 0; i < 3000; ++i) paths.push_back("/w/" + std::to_string(i * 7919 % 100003));
  for (const char* odd : {"/", "/w", "/w/", "/w/1/deeper", "/wx", "/w/100031", "/w/1000310", "/w/10003\x01"}) {
    paths.push_back(odd);
  }
  for (const std::string& path : paths) ASSERT_TRUE(cache.insert(shared(record(path, "n" + path, 1, 1, 1))));
  EXPECT_EQ(indexes(cache).find("(wrong)"), std::string::npos);
  std::vector<std::string> walked;
  for (const auto& e : cache.path_cache()) walked.push_back(e->path);
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(walked, paths);
  for (const auto& e : copy) ASSERT_TRUE(copy.lookup(e->path) == e.get() && e->path.starts_with("/z/")) << e->path;
}

// Many records under one timestamp span several index nodes: removal walks
// still find each one, and the survivors keep their insertion order.
TEST(FsCache, OneTimestampAcrossManyRecordsKeepsInsertionOrder) {
  fs_cache cache;
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    const std::string path = "/t/" + std::to_string(199 - i);  // paths fall while insertion goes on
    ASSERT_TRUE(cache.insert(shared(record(path, "k" + std::to_string(i), 7, 5, 9))));
    if (i % 3 != 0) expected.push_back(path);
  }
  for (int i = 0; i < 200; i += 3) ASSERT_TRUE(cache.delete_by_path(nullptr, "/t/" + std::to_string(199 - i)));
  ASSERT_TRUE(cache.update(record(expected.front(), "k1", 7, 6, 9)));
  ASSERT_TRUE(cache.update(record(expected.front(), "k1", 7, 5, 9)));  // back, now after its equals
  std::rotate(expected.begin(), expected.begin() + 1, expected.end());
  std::vector<std::string> by_start, by_creation;
  {
    fs_cache::shared_guard lock(cache);
    for (const auto& [ts, e] : cache.start_ts_cache()) by_start.push_back(e->path);
    for (const auto& [ts, e] : cache.creation_ts_cache()) by_creation.push_back(e->path);
  }
  EXPECT_EQ(by_start, expected);
  EXPECT_EQ(by_creation, expected);
}

TEST(FsCache, ReadersSeeWholeRecordsWhileWritersChangeTheIndexes) {
  // Every stored record satisfies these relations, so a torn copy shows.
  auto coherent = [](const std::string& path, unsigned long start) {
    return shared(record(path, "key:" + path, start + 1, start, start + 2, start * 3));
  };
  auto is_coherent = [](const fs_entry& e) {
    return !e.start_ts.is_null() && !e.end_ts.is_null() && !e.key.is_null() && *e.key == "key:" + e.path &&
           e.creation_ts == *e.start_ts + 1 && *e.end_ts == *e.start_ts + 2 && e.file_size == *e.start_ts * 3;
  };
  constexpr unsigned long stable = 16, churn = 1000000, rounds = 300;
  fs_cache cache;
  for (unsigned long i = 0; i < stable; ++i) ASSERT_TRUE(cache.insert(coherent("/s" + std::to_string(i), i * 10)));
  {
    fs_cache::shared_guard lock(cache);  // a shared holder asking to write would be an upgrade
    EXPECT_THROW(cache.update(*coherent("/s0", 5)), cdl::assertion_failure);
  }
  std::atomic<int> problems{0};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {  // moves the stable records within [0, 1000)
    for (unsigned long r = 0; r < rounds; ++r) {
      problems += !cache.update(*coherent("/s" + std::to_string(r % stable), (r % stable * 10 + r) % 1000));
    }
  });
  threads.emplace_back([&] {  // short-lived records, removed by path or by time
    for (unsigned long r = 0; r < rounds; ++r) {
      const std::string path = "/c" + std::to_string(r);
      problems += !cache.insert(coherent(path, churn + r));
      problems += r % 2 == 0 ? !cache.delete_by_path(nullptr, path)
                             : !cache.delete_by_time(nullptr, churn + r, churn + r);
    }
  });
  for (int reader = 0; reader < 2; ++reader) {
    threads.emplace_back([&] {
      for (unsigned long r = 0; r < rounds; ++r) {
        std::vector<fs_entry> all;
        cache.by_time(all, 0, churn - 1);
        problems += all.size() != stable || !std::all_of(all.begin(), all.end(), is_coherent) ||
                    !std::is_sorted(all.begin(), all.end()) || cache.first_creation_ts() >= churn;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(problems.load(), 0);
  EXPECT_EQ(cache.size(), stable);
}

// fs_entry::from_json, for hosts reading records back: marks as requested,
// never clears, and stops at the first member of the wrong type.
TEST(FsEntry, ReadsItsJsonBackOneWay) {
  auto read = [](fs_entry& e, const std::string& text) {
    rapidjson::Document doc;
    doc.Parse(text.c_str());
    cdl::validation_error_list errors;
    e.from_json(doc, errors, {}, {}, {});
  };
  fs_entry e = record("/d/a.pcap", "ab12", 5, 10, 20, 24), back;
  e.deletion = by::cleanup;
  read(back, e.to_json_str());
  EXPECT_TRUE(back.to_str() == e.to_str() && back.deletion.load() == by::requested) << e.to_json_str();
  read(back, R"({"pending_deletion":false,"start_ts":null})");
  EXPECT_TRUE(back.deletion.load() == by::requested && back.start_ts.is_null());
  fs_entry partial;
  EXPECT_THROW(read(partial, R"({"path":"/new","file_size":"10","pending_deletion":true})"),
               cdl::unexpected_type_error);
  EXPECT_TRUE(partial.path == "/new" && partial.deletion.load() == by::none);
}

}  // namespace
