// The obvious catalogue, as a baseline for fs_cache: the plain standard
// containers over shared records (std::map by path, std::multimap by each
// timestamp, std::unordered_map by key) behind a std::shared_mutex, with the
// same rules for the operations the comparison times.
#pragma once

#include <csl/fs_entry.hpp>

#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace faitra_bench {

class plain_catalogue {
 public:
  using entry_ptr = std::shared_ptr<csl::fs_entry>;

  bool insert(entry_ptr entry) {
    std::unique_lock lock(_mutex);
    const csl::fs_entry* record = entry.get();
    const auto [position, added] = _by_path.try_emplace(record->path, std::move(entry));
    if (!added) return false;
    const entry_ptr& stored = position->second;
    if (!record->key.is_null()) _by_key.insert_or_assign(*record->key, stored);
    _by_creation.emplace(record->creation_ts, stored);
    if (!record->start_ts.is_null()) _by_start.emplace(*record->start_ts, stored);
    if (!record->end_ts.is_null()) _by_end.emplace(*record->end_ts, stored);
    return true;
  }

  bool delete_by_path(const std::string& path) {
    std::unique_lock lock(_mutex);
    const auto position = _by_path.find(path);
    if (position == _by_path.end()) return false;
    const entry_ptr record = position->second;
    if (!record->key.is_null()) _by_key.erase(*record->key);
    erase(_by_creation, record->creation_ts, record.get());
    if (!record->start_ts.is_null()) erase(_by_start, *record->start_ts, record.get());
    if (!record->end_ts.is_null()) erase(_by_end, *record->end_ts, record.get());
    _by_path.erase(position);
    return true;
  }

  bool by_path(csl::fs_entry& out, const std::string& path) const {
    std::shared_lock lock(_mutex);
    const auto position = _by_path.find(path);
    if (position == _by_path.end()) return false;
    out = *position->second;
    return true;
  }

  bool by_time(std::vector<csl::fs_entry>& out, unsigned long start, unsigned long end) const {
    std::shared_lock lock(_mutex);
    const auto first = _by_start.lower_bound(start);
    const auto last = _by_start.upper_bound(end);
    out.reserve(out.size() + static_cast<size_t>(std::distance(first, last)));  // records copy, never move
    for (auto it = first; it != last; ++it) out.push_back(*it->second);
    return first != last;
  }

 private:
  using ts_index = std::multimap<unsigned long, entry_ptr>;
  static void erase(ts_index& index, unsigned long ts, const csl::fs_entry* record) {
    for (auto it = index.lower_bound(ts); it != index.end() && it->first == ts; ++it) {
      if (it->second.get() == record) {
        index.erase(it);
        return;
      }
    }
  }

  mutable std::shared_mutex _mutex;
  std::map<std::string_view, entry_ptr, std::less<>> _by_path;
  std::unordered_map<std::string_view, entry_ptr> _by_key;
  ts_index _by_creation;
  ts_index _by_start;
  ts_index _by_end;
};

}  // namespace faitra_bench
