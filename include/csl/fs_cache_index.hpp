// The containers behind csl::fs_cache: what each index is, and the path
// index, which answers both in path order and by exact path.
//
// Every index refers to the catalogue's records without copying their text:
// the key index and the path lookup hash the record's own key and path, the
// timestamp indexes hold a timestamp and a pointer. Abseil's B-trees and flat
// hash sets keep many entries per cache line, so an operation at a million
// records touches a handful of lines instead of one per red-black tree level.
//
// Contract: a record's path, and while it is in the key index its key, must
// not change (fs_cache erases a key entry before it changes the key; paths
// are fixed once inserted).
//
// Thread-safety: none of their own; fs_cache's lock guards them.
#pragma once

#include <csl/fs_entry.hpp>

#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <absl/strings/string_view.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace csl {

namespace index_detail {

using entry_ptr = std::shared_ptr<fs_entry>;

// Hash and equality of records by a text field (path or key), also against
// plain text: heterogeneous lookup, so no string is built to find a record.
// Hashed as absl::string_view: Abseil's own string hash (where Abseil's
// string_view is not the standard one, absl::Hash of a std::string_view falls
// back to the slower std::hash).
template <std::string_view (*Field)(const fs_entry*)>
struct field_hash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const {
    return absl::Hash<absl::string_view>()(absl::string_view(text.data(), text.size()));
  }
  size_t operator()(const fs_entry* e) const { return (*this)(Field(e)); }
};
template <std::string_view (*Field)(const fs_entry*)>
struct field_equal {
  using is_transparent = void;
  bool operator()(const fs_entry* a, const fs_entry* b) const { return Field(a) == Field(b); }
  bool operator()(const fs_entry* a, std::string_view b) const { return Field(a) == b; }
  bool operator()(std::string_view a, const fs_entry* b) const { return a == Field(b); }
};

inline std::string_view record_path(const fs_entry* e) { return e->path; }
inline std::string_view record_key(const fs_entry* e) { return *e->key; }

// One entry of the exact-path lookup: the record and its path's characters.
// With both in the slot, the comparison reads the characters while the
// record is still on its way from memory (the two loads overlap), instead
// of reading the record first to find where its path lives: at a million
// records each is a cache miss. A record's path never changes once
// inserted, so the characters stay where they are.
struct path_ref {
  const char* chars;
  fs_entry* record;
};

struct path_ref_hash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return field_hash<record_path>()(text); }
  size_t operator()(const path_ref& r) const { return (*this)(record_path(r.record)); }
};

struct path_ref_equal {
  using is_transparent = void;
  static bool same(const path_ref& r, std::string_view text) {
    return r.record->path.size() == text.size() && std::memcmp(r.chars, text.data(), text.size()) == 0;
  }
  bool operator()(const path_ref& a, const path_ref& b) const { return a.record->path == b.record->path; }
  bool operator()(const path_ref& a, std::string_view b) const { return same(a, b); }
  bool operator()(std::string_view a, const path_ref& b) const { return same(b, a); }
};

// One entry of the path order: the owning pointer of a record, used like the
// pointer itself, and its order word (fs_path_index explains it).
class path_slot {
 public:
  path_slot(entry_ptr record, uint64_t word) : _record(std::move(record)), _word(word) {}

  fs_entry* get() const { return _record.get(); }
  fs_entry& operator*() const { return *_record; }
  fs_entry* operator->() const { return _record.get(); }
  const entry_ptr& owner() const { return _record; }
  uint64_t word() const { return _word; }

 private:
  entry_ptr _record;
  uint64_t _word;
};

// A path looked up in the path order, with its order word.
struct path_probe {
  std::string_view path;
  uint64_t word;
};

// Byte-wise path order, as one three-way comparison per step. Two order
// words with the low bit set belong to paths that share the index's prefix,
// and then different words order their paths as the paths themselves
// would; only equal words, or a path without the prefix, need the text.
struct path_order {
  using is_transparent = void;
  static std::string_view path_of(const path_slot& s) { return s->path; }
  static std::string_view path_of(const path_probe& p) { return p.path; }
  static uint64_t word_of(const path_slot& s) { return s.word(); }
  static uint64_t word_of(const path_probe& p) { return p.word; }
  template <typename A, typename B>
  absl::weak_ordering operator()(const A& a, const B& b) const {
    const uint64_t wa = word_of(a), wb = word_of(b);
    if ((wa & wb & 1) != 0 && wa != wb) return wa < wb ? absl::weak_ordering::less : absl::weak_ordering::greater;
    const int c = path_of(a).compare(path_of(b));
    return c < 0 ? absl::weak_ordering::less : c > 0 ? absl::weak_ordering::greater : absl::weak_ordering::equivalent;
  }
};

}  // namespace index_detail

// The records by path: in path order (begin/end walk them, each entry used
// like a shared pointer to its record) and by exact path (lookup/contains,
// one hash probe).
//
// The path order keeps, beside each record, an order word: the 7 bytes of the
// path that follow a prefix that the index shares out (big-endian, the low
// byte 1 when the path starts with that prefix). Most comparisons on the way
// down the B-tree are decided by the words alone, without reading a path's
// characters: on a scan in directory (hash) order each comparison would
// otherwise cost a cache miss. The prefix is what the first two paths
// inserted have in common (a capture directory and the start of its names),
// fixed until the index is cleared.
class fs_path_index {
 public:
  using ordered_type = absl::btree_set<index_detail::path_slot, index_detail::path_order>;
  using const_iterator = ordered_type::const_iterator;
  using iterator = const_iterator;
  using value_type = index_detail::path_slot;

  const_iterator begin() const { return _ordered.begin(); }
  const_iterator end() const { return _ordered.end(); }
  size_t size() const { return _by_path.size(); }
  bool empty() const { return _by_path.empty(); }

  // The record with this path, or null.
  fs_entry* lookup(std::string_view path) const {
    const auto it = _by_path.find(path);
    return it == _by_path.end() ? nullptr : it->record;
  }
  bool contains(std::string_view path) const { return _by_path.contains(path); }
  // The first record after `path` in path order (for walks resumed from a
  // path that may be gone by now).
  const_iterator upper_bound(std::string_view path) const { return _ordered.upper_bound(probe(path)); }

 private:
  friend class fs_cache;

  // Adds the record unless its path is present; `entry` is left as it was
  // when the path is present.
  bool add(index_detail::entry_ptr&& entry);
  // Removes the record with this path and hands its owning pointer back
  // (null when the path is absent).
  index_detail::entry_ptr remove(std::string_view path);
  // The owning pointer of the record with this path (null when absent).
  index_detail::entry_ptr owner(std::string_view path) const;
  void clear();

  uint64_t word_of(std::string_view path) const;
  index_detail::path_probe probe(std::string_view path) const { return {path, word_of(path)}; }
  void share_prefix_with(std::string_view path);

  using by_path_type =
      absl::flat_hash_set<index_detail::path_ref, index_detail::path_ref_hash, index_detail::path_ref_equal>;
  by_path_type _by_path;
  ordered_type _ordered;  // owns the records
  std::string _prefix;
  bool _prefix_fixed = false;
};

}  // namespace csl
