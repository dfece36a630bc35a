#include <faitra/host/capture_filter.hpp>

#include <faitra/host/capture_attributes.hpp>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <string_view>

namespace faitra_host {

namespace {

std::string base_name(const std::string& name_or_path) {
  const auto slash = name_or_path.rfind('/');
  return slash == std::string::npos ? name_or_path : name_or_path.substr(slash + 1);
}

// What a directory entry is to the catalogue. Only regular files, and
// symbolic links to regular files, are captures; lstat first, so that a
// regular file costs one call. Ordered: of the instances of a bare name in
// several watched directories, the lowest kind counts.
enum class entry_kind { capture, dangling, other, missing };

entry_kind kind_of(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return entry_kind::missing;  // vanished: the caller decides
  if (S_ISREG(status.st_mode)) return entry_kind::capture;
  if (!S_ISLNK(status.st_mode)) return entry_kind::other;
  if (::stat(path.c_str(), &status) != 0) return entry_kind::dangling;
  return S_ISREG(status.st_mode) ? entry_kind::capture : entry_kind::other;
}

// The kind of the entry `name_or_path` names; a bare name (from a scan) is
// looked up in every watched directory.
entry_kind kind_of(const std::set<std::string>& dirs, const std::string& name_or_path, bool bare) {
  if (!bare) return kind_of(name_or_path);
  entry_kind kind = entry_kind::missing;
  for (const std::string& dir : dirs) kind = std::min(kind, kind_of(dir + "/" + name_or_path));
  return kind;
}

bool exists_in_any(const std::set<std::string>& dirs, const std::string& name) {
  struct stat status {};
  for (const std::string& dir : dirs) {
    if (::lstat((dir + "/" + name).c_str(), &status) == 0) return true;
  }
  return false;
}

}  // namespace

capture_filter::capture_filter(std::vector<std::string> suffixes, std::set<std::string> watched_dirs)
    : _state(std::make_shared<state>()) {
  _state->suffixes = std::move(suffixes);
  _state->watched_dirs = std::move(watched_dirs);
}

bool capture_filter::has_capture_suffix(std::string_view name_or_path) const {
  for (const std::string& suffix : _state->suffixes) {
    if (name_or_path.size() > suffix.size() &&
        name_or_path.compare(name_or_path.size() - suffix.size(), suffix.size(), suffix) == 0) {
      return true;
    }
  }
  return false;
}

void capture_filter::note(state& s, const std::string& name, const std::string& reason) {
  for (const scan_problem& p : s.problems) {
    if (p.name == name) return;
  }
  s.problems.push_back({name, reason});
}

bool capture_filter::operator()(const std::string& name_or_path) const {
  if (!has_capture_suffix(name_or_path)) return false;
  const std::string name = base_name(name_or_path);
  const bool bare = name == name_or_path;
  bool known_regular = false;
  if (bare) {
    std::lock_guard<std::mutex> lock(_state->mutex);
    known_regular = _state->learnt.regular_file(name);
  }
  // The watched directories never change, so they are read without the lock.
  const entry_kind kind = known_regular ? entry_kind::capture : kind_of(_state->watched_dirs, name_or_path, bare);
  if (kind == entry_kind::other) return false;
  std::lock_guard<std::mutex> lock(_state->mutex);
  if (kind == entry_kind::dangling) {
    if (name == name_or_path) note(*_state, name, "a symbolic link to nothing");
    return false;
  }
  if (_state->excluded.count(name) != 0) return false;
  if (_state->validate && name == name_or_path && name != _state->last_accepted) {
    std::vector<std::string> paths;
    std::string bad;
    struct stat status {};
    for (const std::string& dir : _state->watched_dirs) {
      const std::string path = dir + "/" + name;
      if (::lstat(path.c_str(), &status) != 0) continue;
      paths.push_back(path);
      const attribute_values values = read_capture_attributes(path);
      if (!values.malformed.empty() && bad.empty()) bad = values.malformed.front();
    }
    if (!bad.empty()) {
      _state->malformed.insert(paths.begin(), paths.end());
      note(*_state, name, "malformed attribute " + bad + "; catalogued without it");
      return false;
    }
  }
  if (name == name_or_path && name == _state->last_accepted) {
    // Offered again at once: its stat failed.
    ++_state->repeats;
    if (!exists_in_any(_state->watched_dirs, name) || _state->repeats >= MAX_STAT_RETRIES) {
      note(*_state, name, "vanished or unreadable during the scan");
      _state->last_accepted.clear();
      _state->repeats = 0;
      return false;
    }
    return true;
  }
  if (name == name_or_path) {
    _state->last_accepted = name;
    _state->repeats = 0;
  }
  return true;
}

std::string capture_filter::last_accepted() const {
  std::lock_guard<std::mutex> lock(_state->mutex);
  return _state->last_accepted;
}

void capture_filter::exclude(const std::string& name, const std::string& reason) {
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->excluded.insert(name);
  note(*_state, name, reason);
}

void capture_filter::validate_attributes() {
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->validate = true;
  // The name a failed scan was loading is offered first thing again.
  _state->last_accepted.clear();
  _state->repeats = 0;
}

bool capture_filter::validating() const {
  std::lock_guard<std::mutex> lock(_state->mutex);
  return _state->validate;
}

std::vector<std::string> capture_filter::malformed_paths() const {
  std::lock_guard<std::mutex> lock(_state->mutex);
  return {_state->malformed.begin(), _state->malformed.end()};
}

bool capture_filter::learnt_types::regular_file(const std::string& name) {
  // Names deleted since they were learnt are stepped over; one created since
  // is not listed and gets its lstat.
  constexpr size_t LOOK_AHEAD = 16;
  for (size_t i = next; i < ends.size() && i < next + LOOK_AHEAD; ++i) {
    const size_t begin = i == 0 ? 0 : ends[i - 1];
    if (std::string_view(names).substr(begin, ends[i] - begin) == name) {
      next = i + 1;
      return regular[i];
    }
  }
  return false;
}

void capture_filter::learn_entry_types() {
  learnt_types learnt;
  for (const std::string& dir : _state->watched_dirs) {
    DIR* listing = ::opendir(dir.c_str());
    if (listing == nullptr) continue;
    while (const dirent* entry = ::readdir(listing)) {
      if (!has_capture_suffix(entry->d_name)) continue;
      learnt.names.append(entry->d_name);
      learnt.ends.push_back(learnt.names.size());
      learnt.regular.push_back(entry->d_type == DT_REG);
    }
    ::closedir(listing);
  }
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->learnt = std::move(learnt);
}

void capture_filter::forget_entry_types() {
  learnt_types learnt;
  std::lock_guard<std::mutex> lock(_state->mutex);
  std::swap(learnt, _state->learnt);
}

std::vector<scan_problem> capture_filter::problems() const {
  std::lock_guard<std::mutex> lock(_state->mutex);
  return _state->problems;
}

}  // namespace faitra_host
