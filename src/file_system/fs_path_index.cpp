#include <csl/fs_cache_index.hpp>

namespace csl {

using index_detail::entry_ptr;
using index_detail::path_slot;

bool fs_path_index::add(entry_ptr&& entry) {
  fs_entry* record = entry.get();
  if (!_by_path.insert({record->path.data(), record}).second) return false;
  try {
    if (!_prefix_fixed && _ordered.size() == 1) share_prefix_with(record->path);
    // Hinted at the end: capture paths grow, so a new path usually sorts
    // last and is placed without a walk from the root.
    _ordered.insert(_ordered.end(), path_slot(std::move(entry), word_of(record->path)));
  } catch (...) {
    _by_path.erase(std::string_view(record->path));
    throw;
  }
  return true;
}

entry_ptr fs_path_index::remove(std::string_view path) {
  const auto position = _by_path.find(path);
  if (position == _by_path.end()) return nullptr;
  _by_path.erase(position);
  const auto ordered = _ordered.find(probe(path));
  entry_ptr record = ordered->owner();
  _ordered.erase(ordered);
  return record;
}

entry_ptr fs_path_index::owner(std::string_view path) const {
  const auto it = _ordered.find(probe(path));
  return it == _ordered.end() ? nullptr : it->owner();
}

void fs_path_index::clear() {
  _by_path.clear();
  _ordered.clear();
  _prefix.clear();
  _prefix_fixed = false;
}

uint64_t fs_path_index::word_of(std::string_view path) const {
  if (!_prefix_fixed || path.compare(0, _prefix.size(), _prefix) != 0) return 0;
  uint64_t word = 0;
  for (size_t i = 0; i < 7; ++i) {
    const size_t at = _prefix.size() + i;
    word = (word << 8) | (at < path.size() ? static_cast<unsigned char>(path[at]) : 0U);
  }
  return (word << 8) | 1;
}

// The prefix becomes what the first record's path and `path` have in common;
// the first record's entry is made again with its word.
void fs_path_index::share_prefix_with(std::string_view path) {
  entry_ptr first = _ordered.begin()->owner();
  const std::string_view first_path = first->path;
  size_t common = 0;
  while (common < first_path.size() && common < path.size() && first_path[common] == path[common]) ++common;
  _prefix.assign(first_path.substr(0, common));
  _prefix_fixed = true;
  _ordered.clear();
  _ordered.insert(path_slot(std::move(first), word_of(first_path)));
}

}  // namespace csl
