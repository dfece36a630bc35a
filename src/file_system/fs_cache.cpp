#include <csl/fs_cache.hpp>

#include <cdl/exception.hpp>

#include <absl/container/inlined_vector.h>

namespace csl {

namespace {

// Walks a timestamp index from the first entry at `ts`, erasing the entry
// that points at `record`. The walk stops at the end, at the record, or at
// an entry whose record has a larger timestamp (read by `ts_of`, which
// answers null for records that no longer carry one: those never stop it).
// Returns whether it erased the entry.
template <typename TsOf>
bool erase_ts_entry(fs_cache::ts_index& index, unsigned long ts, const fs_entry* record, TsOf ts_of) {
  for (auto it = index.lower_bound(ts); it != index.end(); ++it) {
    if (it->second == record) {
      index.erase(it);
      return true;
    }
    const cdl::nullable<unsigned long> other = ts_of(*it->second);
    if (!other.is_null() && *other > ts) return false;
  }
  return false;
}

// Adds (ts, record) after every entry with the same timestamp. Hinted at the
// end: timestamps mostly grow, and then the entry is placed without a walk
// from the root; any other timestamp falls back to a search that also puts it
// after its equals.
void append(fs_cache::ts_index& index, unsigned long ts, fs_entry* record) {
  index.emplace_hint(index.end(), ts, record);
}

}  // namespace

fs_cache::fs_cache() : synchronized_ptr_shared<recursive_shared_mutex>(&_mutex, nullptr) {}

bool fs_cache::insert(entry_ptr&& entry) {
  if (!entry) cdl::throw_assert(CDL_FILE_NAME, 26, "entry is null");
  guard lock(*this);
  fs_entry* record = entry.get();
  // The key index's slot is a cache miss of its own; fetched now, it arrives
  // while the path index is searched.
  if (!record->key.is_null()) _key_index.prefetch(std::string_view(*record->key));
  if (!_path_index.add(std::move(entry))) return false;
  update_impl(*record, record, true);
  return true;
}

bool fs_cache::update(const fs_entry& entry) {
  guard lock(*this);
  fs_entry* stored = _path_index.lookup(entry.path);
  if (stored == nullptr) return false;
  update_impl(entry, stored, false);
  return true;
}

void fs_cache::update_impl(const fs_entry& src, fs_entry* stored, bool inserted) {
  // A freshly inserted record has no timestamp entries, so the removal walks
  // are skipped for it. They would search in vain, and on a start-up scan of
  // captures created within the same second each one would walk every
  // capture inserted before it. A record that the catalogue kept alive for
  // its leftover entries (inserted again) takes the walks as usual.
  const bool may_be_indexed = !inserted || _retained.contains(stored);
  // `src` may be the stored record itself (on insert): read what is needed
  // before the stored fields change.
  if (inserted && &src == stored) {
    // The new record takes the key from whichever record held it, in one
    // lookup when no other record holds it (the usual case).
    if (!stored->key.is_null()) {
      auto [position_in_keys, added] = _key_index.insert(stored);
      if (!added) {
        _key_index.erase(position_in_keys);
        _key_index.insert(stored);
      }
    }
  } else if (inserted || !(stored->key == src.key)) {
    if (!stored->key.is_null()) _key_index.erase(std::string_view(*stored->key));
    stored->key = src.key;
    // Does not replace another record that holds the same key.
    if (!stored->key.is_null()) _key_index.insert(stored);
  }

  bool found = true;
  if (may_be_indexed) found = delete_creation_ts_impl(stored);
  stored->creation_ts = src.creation_ts;
  append(_creation_index, stored->creation_ts, stored);

  if (inserted || !(stored->start_ts == src.start_ts)) {
    if (may_be_indexed && !stored->start_ts.is_null()) found = delete_ts_impl(stored, true) && found;
    stored->start_ts = src.start_ts;
    if (!stored->start_ts.is_null()) append(_start_index, *stored->start_ts, stored);
  }

  if (inserted || !(stored->end_ts == src.end_ts)) {
    if (may_be_indexed && !stored->end_ts.is_null()) found = delete_ts_impl(stored, false) && found;
    stored->end_ts = src.end_ts;
    if (!stored->end_ts.is_null()) append(_end_index, *stored->end_ts, stored);
  }

  stored->deletion.store(src.deletion.load());
  stored->file_size = src.file_size;
  // An entry the walks missed still points at the record: keep it alive.
  if (!found) retain(_path_index.owner(stored->path));
}

bool fs_cache::delete_creation_ts_impl(fs_entry* record) {
  return erase_ts_entry(_creation_index, record->creation_ts, record,
                        [](const fs_entry& e) { return cdl::nullable<unsigned long>(e.creation_ts); });
}

bool fs_cache::delete_ts_impl(fs_entry* record, bool start) {
  const cdl::nullable<unsigned long>& ts = start ? record->start_ts : record->end_ts;
  if (ts.is_null()) return true;
  if (start) return erase_ts_entry(_start_index, *ts, record, [](const fs_entry& e) { return e.start_ts; });
  return erase_ts_entry(_end_index, *ts, record, [](const fs_entry& e) { return e.end_ts; });
}

void fs_cache::retain(entry_ptr record) {
  if (record) _retained.insert(std::move(record));
}

bool fs_cache::delete_(const fs_entry& entry) { return delete_by_path(nullptr, entry.path); }

bool fs_cache::delete_(fs_entry& out, const fs_entry& entry) { return delete_by_path(&out, entry.path); }

bool fs_cache::delete_by_path(fs_entry* out, const std::string& path) {
  guard lock(*this);
  fs_entry* record = _path_index.lookup(path);
  if (record == nullptr) return false;
  if (!record->key.is_null()) _key_index.erase(std::string_view(*record->key));
  bool found = delete_creation_ts_impl(record);
  found = delete_ts_impl(record, true) && found;
  found = delete_ts_impl(record, false) && found;
  if (out != nullptr) *out = *record;
  entry_ptr owner = _path_index.remove(path);
  if (!found) retain(std::move(owner));
  return true;
}

bool fs_cache::delete_by_time(std::vector<fs_entry>* out, unsigned long start, unsigned long end) {
  if (start > end) return false;
  guard lock(*this);
  auto first = _start_index.lower_bound(start);
  if (first == _start_index.end() || first->first > end) return false;
  if (out != nullptr) {
    size_t count = 0;
    for (auto it = first; it != _start_index.end() && it->first <= end; ++it) ++count;
    out->reserve(out->size() + count);
  }
  // Erasing invalidates B-tree iterators other than the one erase returns, so
  // the range's end is tested by key on every step.
  while (first != _start_index.end() && first->first <= end) {
    fs_entry* record = first->second;
    if (out != nullptr) out->push_back(*record);
    if (!record->key.is_null()) _key_index.erase(std::string_view(*record->key));
    // The creation and end entries stay, so the record stays alive; so does
    // whichever record the path index held under this path.
    entry_ptr owner = _path_index.remove(record->path);
    retain(std::move(owner));
    first = _start_index.erase(first);
  }
  return true;
}

bool fs_cache::by_path(fs_entry& out, const std::string& path) const {
  shared_guard lock(*this);
  const fs_entry* record = _path_index.lookup(path);
  if (record == nullptr) return false;
  out = *record;
  return true;
}

bool fs_cache::by_time(std::vector<fs_entry>& out, unsigned long start, unsigned long end) const {
  if (start > end) return false;
  shared_guard lock(*this);
  // One walk collects the records; then `out` grows once (records have no
  // move constructor, so every reallocation would copy each path and key
  // again) and every record is copied once, the next ones prefetched: in a
  // catalogue built in directory order they lie anywhere in memory.
  absl::InlinedVector<const fs_entry*, 128> found;
  for (auto it = _start_index.lower_bound(start); it != _start_index.end() && it->first <= end; ++it) {
    found.push_back(it->second);
  }
  if (found.empty()) return false;
  out.reserve(out.size() + found.size());
  constexpr size_t AHEAD = 4;
  for (size_t i = 0; i < found.size(); ++i) {
    if (i + 2 * AHEAD < found.size()) {
      const char* record = reinterpret_cast<const char*>(found[i + 2 * AHEAD]);
      for (size_t line = 0; line < sizeof(fs_entry); line += 64) __builtin_prefetch(record + line);
    }
    if (i + AHEAD < found.size()) {
      const fs_entry* next = found[i + AHEAD];
      __builtin_prefetch(next->path.data());
      if (!next->key.is_null()) __builtin_prefetch(next->key->data());
    }
    out.push_back(*found[i]);
  }
  return true;
}

bool fs_cache::path_exists(const std::string& path) const {
  shared_guard lock(*this);
  return _path_index.contains(path);
}

size_t fs_cache::size() const {
  shared_guard lock(*this);
  return _path_index.size();
}

size_t fs_cache::clear() {
  guard lock(*this);
  const size_t count = size();
  // The end index is deliberately left as it is, so every record it points
  // at must outlive the other indexes.
  absl::flat_hash_set<const fs_entry*> in_end_index;
  for (const auto& [ts, record] : _end_index) in_end_index.insert(record);
  absl::flat_hash_set<entry_ptr> kept;
  for (const auto& slot : _path_index) {
    if (in_end_index.contains(slot.get())) kept.insert(slot.owner());
  }
  for (const entry_ptr& record : _retained) {
    if (in_end_index.contains(record.get())) kept.insert(record);
  }
  _key_index.clear();
  _creation_index.clear();
  _start_index.clear();
  _path_index.clear();
  _retained = std::move(kept);
  return count;
}

unsigned long fs_cache::first_creation_ts() const {
  shared_guard lock(*this);
  if (_creation_index.empty()) return NO_CREATION_TS;
  return _creation_index.begin()->first;
}

}  // namespace csl
