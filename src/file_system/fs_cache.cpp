#include <csl/fs_cache.hpp>

#include <cdl/exception.hpp>

#include <iterator>

namespace csl {

namespace {

// Walks a timestamp index from the first entry at `ts`, erasing the entry
// that points at `record`. The walk stops at the end, at the record, or at
// an entry whose record has a larger timestamp (read by `ts_of`, which
// answers null for records that no longer carry one: those never stop it).
template <typename TsOf>
void erase_ts_entry(fs_cache::ts_index& index, unsigned long ts, const fs_entry* record, TsOf ts_of) {
  for (auto it = index.lower_bound(ts); it != index.end(); ++it) {
    if (it->second.get() == record) {
      index.erase(it);
      return;
    }
    const cdl::nullable<unsigned long> other = ts_of(*it->second);
    if (!other.is_null() && *other > ts) return;
  }
}

// Adds (ts, record) after every entry with the same timestamp, as emplace
// does. Hinted at the end: timestamps mostly grow, and then the entry is
// placed without a walk from the root.
void append(fs_cache::ts_index& index, unsigned long ts, const fs_cache::entry_ptr& record) {
  index.emplace_hint(index.end(), ts, record);
}

}  // namespace

fs_cache::fs_cache()
    : synchronized_ptr_shared<recursive_shared_mutex>(&_mutex, nullptr),
      _key_index(0, key_index::hasher(), key_index::key_equal(), key_index::allocator_type(&_arena)),
      _creation_index(ts_index::allocator_type(&_arena)),
      _start_index(ts_index::allocator_type(&_arena)),
      _end_index(ts_index::allocator_type(&_arena)),
      _path_index(path_index::allocator_type(&_arena)) {}

bool fs_cache::insert(entry_ptr&& entry) {
  if (!entry) cdl::throw_assert(CDL_FILE_NAME, 26, "entry is null");
  guard lock(*this);
  fs_entry* record = entry.get();
  // Hinted at the end: capture paths grow, so a new path usually sorts last
  // and is placed without a walk from the root; any other path falls back
  // to the usual search.
  const size_t size_before = _path_index.size();
  const auto position = _path_index.try_emplace(_path_index.end(), std::string_view(record->path), std::move(entry));
  if (_path_index.size() == size_before) return false;
  update_impl(*record, position, true);
  return true;
}

bool fs_cache::update(const fs_entry& entry) {
  guard lock(*this);
  auto position = _path_index.find(std::string_view(entry.path));
  if (position == _path_index.end()) return false;
  update_impl(entry, position, false);
  return true;
}

void fs_cache::update_impl(const fs_entry& src, path_index::iterator position, bool inserted) {
  const entry_ptr& stored = position->second;
  // A record whose only owner is the path index has no timestamp entries,
  // so the removal walks are skipped for it. They would search in vain, and
  // on a start-up scan of captures created within the same second each one
  // would walk every capture inserted before it. A just-inserted record
  // that is still referenced elsewhere (for instance by the entries that a
  // time deletion leaves behind) takes the walks as usual.
  const bool may_be_indexed = !inserted || stored.use_count() > 1;
  // `src` may be the stored record itself (on insert): read what is needed
  // before the stored fields change.
  if (inserted && &src == stored.get()) {
    // The new record takes the key from whichever record held it, in one
    // lookup when no other record holds it (the usual case).
    if (!stored->key.is_null()) {
      const std::string_view key(*stored->key);
      auto [position_in_keys, added] = _key_index.try_emplace(key, stored);
      if (!added) {
        _key_index.erase(position_in_keys);  // its key view belongs to the other record
        _key_index.emplace(key, stored);
      }
    }
  } else if (inserted || !(stored->key == src.key)) {
    if (!stored->key.is_null()) _key_index.erase(std::string_view(*stored->key));
    stored->key = src.key;
    if (!stored->key.is_null()) _key_index.emplace(std::string_view(*stored->key), stored);
  }

  if (may_be_indexed) delete_creation_ts_impl(position);
  stored->creation_ts = src.creation_ts;
  append(_creation_index, stored->creation_ts, stored);

  if (inserted || !(stored->start_ts == src.start_ts)) {
    if (may_be_indexed && !stored->start_ts.is_null()) delete_ts_impl(position, true);
    stored->start_ts = src.start_ts;
    if (!stored->start_ts.is_null()) append(_start_index, *stored->start_ts, stored);
  }

  if (inserted || !(stored->end_ts == src.end_ts)) {
    if (may_be_indexed && !stored->end_ts.is_null()) delete_ts_impl(position, false);
    stored->end_ts = src.end_ts;
    if (!stored->end_ts.is_null()) append(_end_index, *stored->end_ts, stored);
  }

  stored->deletion.store(src.deletion.load());
  stored->file_size = src.file_size;
}

void fs_cache::delete_creation_ts_impl(path_index::iterator position) {
  const fs_entry* record = position->second.get();
  erase_ts_entry(_creation_index, record->creation_ts, record,
                 [](const fs_entry& e) { return cdl::nullable<unsigned long>(e.creation_ts); });
}

void fs_cache::delete_ts_impl(path_index::iterator position, bool start) {
  const fs_entry* record = position->second.get();
  const cdl::nullable<unsigned long>& ts = start ? record->start_ts : record->end_ts;
  if (ts.is_null()) return;
  if (start) {
    erase_ts_entry(_start_index, *ts, record, [](const fs_entry& e) { return e.start_ts; });
  } else {
    erase_ts_entry(_end_index, *ts, record, [](const fs_entry& e) { return e.end_ts; });
  }
}

fs_cache::path_index::iterator fs_cache::delete_path(path_index::iterator position) {
  return _path_index.erase(position);
}

bool fs_cache::delete_(const fs_entry& entry) { return delete_by_path(nullptr, entry.path); }

bool fs_cache::delete_(fs_entry& out, const fs_entry& entry) { return delete_by_path(&out, entry.path); }

bool fs_cache::delete_by_path(fs_entry* out, const std::string& path) {
  guard lock(*this);
  auto position = _path_index.find(std::string_view(path));
  if (position == _path_index.end()) return false;
  const entry_ptr record = position->second;
  if (!record->key.is_null()) _key_index.erase(std::string_view(*record->key));
  delete_creation_ts_impl(position);
  delete_ts_impl(position, true);
  delete_ts_impl(position, false);
  if (out != nullptr) *out = *record;
  delete_path(position);
  return true;
}

bool fs_cache::delete_by_time(std::vector<fs_entry>* out, unsigned long start, unsigned long end) {
  if (start > end) return false;
  guard lock(*this);
  auto first = _start_index.lower_bound(start);
  const auto last = _start_index.upper_bound(end);
  if (first == last) return false;
  if (out != nullptr) out->reserve(out->size() + static_cast<size_t>(std::distance(first, last)));
  while (first != last) {
    const entry_ptr record = first->second;
    if (out != nullptr) out->push_back(*record);
    if (!record->key.is_null()) _key_index.erase(std::string_view(*record->key));
    auto position = _path_index.find(std::string_view(record->path));
    if (position != _path_index.end()) delete_path(position);
    first = _start_index.erase(first);
  }
  return true;
}

bool fs_cache::by_path(fs_entry& out, const std::string& path) const {
  shared_guard lock(*this);
  const auto position = _path_index.find(std::string_view(path));
  if (position == _path_index.end()) return false;
  out = *position->second;
  return true;
}

bool fs_cache::by_time(std::vector<fs_entry>& out, unsigned long start, unsigned long end) const {
  if (start > end) return false;
  shared_guard lock(*this);
  auto first = _start_index.lower_bound(start);
  const auto last = _start_index.upper_bound(end);
  if (first == last) return false;
  // Records have no move constructor: every reallocation of `out` would
  // copy (and allocate) each record's path and key again.
  out.reserve(out.size() + static_cast<size_t>(std::distance(first, last)));
  for (; first != last; ++first) out.push_back(*first->second);
  return true;
}

bool fs_cache::path_exists(const std::string& path) const {
  shared_guard lock(*this);
  return _path_index.find(std::string_view(path)) != _path_index.end();
}

size_t fs_cache::size() const {
  shared_guard lock(*this);
  return _path_index.size();
}

size_t fs_cache::clear() {
  guard lock(*this);
  const size_t count = size();
  _key_index.clear();
  _creation_index.clear();
  _start_index.clear();
  _path_index.clear();
  // The end index is deliberately left as it is.
  return count;
}

unsigned long fs_cache::first_creation_ts() const {
  shared_guard lock(*this);
  if (_creation_index.empty()) return NO_CREATION_TS;
  return _creation_index.begin()->first;
}

}  // namespace csl
