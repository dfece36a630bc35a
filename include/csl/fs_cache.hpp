// csl::fs_cache: the in-memory catalogue of capture files.
//
// One shared fs_entry per file, reachable through five indexes: by path (the
// primary index; its size is the catalogue's size), by hash key, and by
// creation, start and end timestamp. Records are changed in place and never
// replaced, so all indexes always point at the same object. The path and key
// indexes find records by the record's own path and key strings, so each
// text is stored once (csl/fs_cache_index.hpp).
//
// Invariants kept by insert and update: every record is in the path and the
// creation index; it is in the key, start and end index exactly while the
// corresponding field is set; within one timestamp, entries keep insertion
// order. Deliberate leftovers:
//  - delete_by_time leaves the creation and end index entries of the records
//    it removes (the catalogue keeps those records alive until clear(), and
//    the ones still in the end index for as long as it lives);
//  - clear() leaves the end index;
//  - two records with one key: the key index keeps the first on update and
//    the newest on insert.
// Callers that walk the creation or end index must therefore expect records
// whose path is no longer catalogued.
//
// Thread-safety: the index is its own lock (a recursive shared mutex). Every
// public operation takes it; readers shared, writers exclusive. A caller
// holding a `guard` may call anything; a caller holding only a
// `shared_guard` must not call a writer (that would be an upgrade, refused
// with an assertion). The unlocked accessors are for callers that hold a
// guard themselves. Everything handed out is a copy.
#pragma once

#include <csl/fs_cache_index.hpp>
#include <csl/fs_entry.hpp>
#include <csl/utils/recursive_shared_mutex.hpp>

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace csl {

class fs_cache : public synchronized_ptr_shared<recursive_shared_mutex> {
 public:
  using entry_ptr = std::shared_ptr<fs_entry>;
  // Walked as (key, record) pairs like the standard ordered containers.
  using ts_index = absl::btree_multimap<unsigned long, fs_entry*>;
  // Walked as records (fs_entry*); looked up by key text.
  using key_index = absl::flat_hash_set<fs_entry*, index_detail::field_hash<index_detail::record_key>,
                                        index_detail::field_equal<index_detail::record_key>>;
  using path_index = fs_path_index;

  // The value first_creation_ts() returns for an empty creation index.
  static constexpr unsigned long NO_CREATION_TS = 9223372036854775807UL;

  fs_cache();
  fs_cache(const fs_cache&) = delete;
  fs_cache& operator=(const fs_cache&) = delete;

  bool insert(entry_ptr&& entry);
  bool update(const fs_entry& entry);
  bool delete_(const fs_entry& entry);
  bool delete_(fs_entry& out, const fs_entry& entry);
  bool delete_by_path(fs_entry* out, const std::string& path);
  bool delete_by_time(std::vector<fs_entry>* out, unsigned long start, unsigned long end);
  bool by_path(fs_entry& out, const std::string& path) const;
  bool by_time(std::vector<fs_entry>& out, unsigned long start, unsigned long end) const;
  bool path_exists(const std::string& path) const;
  size_t size() const;
  size_t clear();
  unsigned long first_creation_ts() const;

  // Unlocked accessors; hold a guard over the index while using them.
  const key_index& key_cache() const { return _key_index; }
  const ts_index& creation_ts_cache() const { return _creation_index; }
  const ts_index& start_ts_cache() const { return _start_index; }
  const ts_index& end_ts_cache() const { return _end_index; }
  const path_index& path_cache() const { return _path_index; }
  ts_index& start_ts_cache_rw() { return _start_index; }
  ts_index& end_ts_cache_rw() { return _end_index; }
  // Mutable although const, kept so: the storage finds records through it
  // under a shared guard and marks them through their atomic marker.
  path_index& path_cache_rw() const { return _path_index; }

 private:
  void update_impl(const fs_entry& src, fs_entry* stored, bool inserted);
  bool delete_creation_ts_impl(fs_entry* record);
  bool delete_ts_impl(fs_entry* record, bool start);
  void delete_path(fs_entry* record);
  void retain(entry_ptr record);

  mutable recursive_shared_mutex _mutex;
  key_index _key_index;
  ts_index _creation_index;
  ts_index _start_index;
  ts_index _end_index;
  mutable path_index _path_index;
  // Records that a timestamp index may still point at although the path
  // index no longer holds them (the leftovers above, and any record whose
  // entry a removal walk did not find): the timestamp indexes hold plain
  // pointers, so these are kept alive here.
  absl::flat_hash_set<entry_ptr> _retained;
};

}  // namespace csl
