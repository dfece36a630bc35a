#include <faitra/host/holds.hpp>

#include <faitra/host/hold_json.hpp>
#include <faitra/host/time_text.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace faitra_host {

namespace {

std::string base_name(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string errno_text(int error) { return std::strerror(error); }

void sync_path(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

bool overlaps(const csl::fs_entry& record, const time_window& window) {
  if (record.start_ts.is_null()) return false;
  const unsigned long last = record.end_ts.is_null() ? *record.start_ts : *record.end_ts;
  return *record.start_ts <= window.end && last >= window.start;
}

bool holds_path(const hold& h, const std::string& path) {
  for (const held_capture& c : h.captures) {
    if (c.path == path) return true;
  }
  return false;
}

}  // namespace

hold_registry::hold_registry(std::string dir, std::string captures_dir, std::shared_ptr<csl::fs_cache> cache,
                             cdl::log* log)
    : _dir(std::move(dir)), _captures_dir(std::move(captures_dir)), _cache(std::move(cache)), _log(log) {
  load();
}

std::vector<csl::fs_entry> hold_registry::overlapping(const time_window& window) const {
  // Every capture that overlaps the window ends at or after its start: the
  // end index from there, checked against the start.
  std::vector<csl::fs_entry> out;
  csl::fs_cache::shared_guard guard(*_cache);
  const auto& paths = _cache->path_cache();
  const auto& by_end = _cache->end_ts_cache();
  for (auto it = by_end.lower_bound(window.start); it != by_end.end(); ++it) {
    const csl::fs_entry& record = *it->second;
    if (!overlaps(record, window)) continue;
    if (paths.lookup(record.path) != &record) continue;  // a leftover index entry
    out.push_back(record);
  }
  return out;
}

hold hold_registry::add(const hold_request& request, uint64_t now_ns, std::vector<hold_refusal>& refused) {
  if (request.expires_ns && *request.expires_ns <= now_ns) throw hold_error(400, "expires is not in the future");
  std::vector<csl::fs_entry> records;
  if (request.window) {
    records = overlapping(*request.window);
  } else {
    for (const std::string& path : request.paths) {
      csl::fs_entry record;
      if (!_cache->by_path(record, path)) throw hold_error(404, "no capture is catalogued at " + path);
      records.push_back(record);
    }
  }
  std::lock_guard<std::mutex> lock(_mutex);
  ensure_dir();
  hold h;
  h.id = _next_id++;
  h.reason = request.reason;
  h.created_ns = now_ns;
  h.expires_ns = request.expires_ns;
  h.window = request.window;
  const std::string hold_dir = _dir + "/" + std::to_string(h.id);
  if (::mkdir(hold_dir.c_str(), 0750) != 0 && errno != EEXIST) {
    throw hold_error(500, "cannot create " + hold_dir + ": " + errno_text(errno));
  }
  for (const csl::fs_entry& record : records) {
    if (holds_path(h, record.path)) continue;  // a path named twice
    const std::string problem = link(h, record);
    if (!problem.empty()) refused.push_back({record.path, problem});
  }
  _holds.push_back(h);
  save();
  if (_log != nullptr) {
    _log->info("Hold %lu: holding %lu capture(s) (%s)%s", h.id, static_cast<unsigned long>(h.captures.size()),
               h.reason, h.expires_ns ? " until " + format_time_ns(*h.expires_ns) : std::string());
  }
  return h;
}

std::string hold_registry::link(hold& h, const csl::fs_entry& record) {
  const std::string hold_dir = _dir + "/" + std::to_string(h.id);
  std::string target = hold_dir + "/" + base_name(record.path);
  // Through a symbolic link to the file it names: the hold keeps the bytes,
  // not a link that a cleanup of its target would leave dangling.
  for (unsigned n = 1; ::linkat(AT_FDCWD, record.path.c_str(), AT_FDCWD, target.c_str(), AT_SYMLINK_FOLLOW) != 0;
       ++n) {
    const int error = errno;
    if (error == EXDEV) return "the hold directory is on another file system than the capture";
    if (error != EEXIST || n > 1000) return "cannot link it into " + hold_dir + ": " + errno_text(error);
    target = hold_dir + "/" + std::to_string(n) + "-" + base_name(record.path);
  }
  struct stat status {};
  ::stat(target.c_str(), &status);
  held_capture c;
  c.path = record.path;
  c.held_path = target;
  if (!record.key.is_null()) c.key = *record.key;
  if (!record.start_ts.is_null()) c.start_ts = *record.start_ts;
  if (!record.end_ts.is_null()) c.end_ts = *record.end_ts;
  c.creation_ts = record.creation_ts;
  c.file_size = static_cast<unsigned long>(status.st_size);
  c.inode = static_cast<uint64_t>(status.st_ino);
  h.captures.push_back(std::move(c));
  return {};
}

std::vector<hold> hold_registry::list() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _holds;
}

bool hold_registry::release(unsigned long id) {
  std::lock_guard<std::mutex> lock(_mutex);
  for (auto it = _holds.begin(); it != _holds.end(); ++it) {
    if (it->id != id) continue;
    remove_links(*it);
    if (_log != nullptr) {
      _log->info("Hold %lu released: %lu capture(s) (%s)", id, static_cast<unsigned long>(it->captures.size()),
                 it->reason);
    }
    _holds.erase(it);
    save();
    return true;
  }
  return false;
}

size_t hold_registry::expire(uint64_t now_ns) {
  std::vector<unsigned long> due;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const hold& h : _holds) {
      if (h.expires_ns && *h.expires_ns <= now_ns) due.push_back(h.id);
    }
  }
  for (const unsigned long id : due) {
    if (_log != nullptr) _log->info("Hold %lu expired", id);
    release(id);
  }
  return due.size();
}

void hold_registry::extend(uint64_t now_ns) {
  const auto follow = static_cast<uint64_t>(std::chrono::nanoseconds(WINDOW_FOLLOW).count());
  std::vector<std::pair<unsigned long, time_window>> followed;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const hold& h : _holds) {
      if (h.window && h.window->end + follow >= now_ns && h.window->end + follow >= h.window->end) {
        followed.emplace_back(h.id, *h.window);
      }
    }
  }
  for (const auto& [id, window] : followed) {
    const std::vector<csl::fs_entry> records = overlapping(window);
    std::lock_guard<std::mutex> lock(_mutex);
    for (hold& h : _holds) {
      if (h.id != id) continue;
      const size_t before = h.captures.size();
      for (const csl::fs_entry& record : records) {
        if (holds_path(h, record.path)) continue;
        const std::string problem = link(h, record);
        if (!problem.empty() && _log != nullptr) _log->error("Hold %lu: cannot hold %s: %s", id, record.path, problem);
      }
      if (h.captures.size() != before) {
        if (_log != nullptr) {
          _log->info("Hold %lu: holding %lu more capture(s) that arrived in its window", id,
                     static_cast<unsigned long>(h.captures.size() - before));
        }
        save();
      }
    }
  }
}

std::set<std::string> hold_registry::held_paths() const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::set<std::string> out;
  for (const hold& h : _holds) {
    for (const held_capture& c : h.captures) out.insert(c.path);
  }
  return out;
}

hold_registry::totals hold_registry::summary() const {
  std::lock_guard<std::mutex> lock(_mutex);
  totals t;
  std::set<uint64_t> counted;
  for (const hold& h : _holds) {
    ++t.holds;
    for (const held_capture& c : h.captures) {
      ++t.captures;
      if (counted.insert(c.inode).second) t.bytes += c.file_size;
    }
  }
  return t;
}

void hold_registry::ensure_dir() {
  if (::mkdir(_dir.c_str(), 0750) != 0 && errno != EEXIST) {
    throw hold_error(500, "cannot create the hold directory " + _dir + ": " + errno_text(errno));
  }
  struct stat held {}, captures {};
  if (::stat(_dir.c_str(), &held) != 0 || !S_ISDIR(held.st_mode)) {
    throw hold_error(500, "the hold directory " + _dir + " is not a directory");
  }
  if (::stat(_captures_dir.c_str(), &captures) == 0 && captures.st_dev != held.st_dev) {
    throw hold_error(500, "the hold directory " + _dir + " is on another file system than " + _captures_dir +
                              "; a hold needs hard links, so give --hold-dir on the captures' file system");
  }
}

void hold_registry::remove_links(const hold& h) const {
  for (const held_capture& c : h.captures) ::unlink(c.held_path.c_str());
  ::rmdir((_dir + "/" + std::to_string(h.id)).c_str());
}

void hold_registry::load() {
  const std::string path = _dir + "/" + STATE_FILE;
  std::ifstream in(path, std::ios::binary);
  if (!in) return;
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::string error;
  if (!holds_from_json(text, _holds, _next_id, error)) {
    throw std::runtime_error("cannot read the holds in " + path + ": " + error);
  }
  size_t dropped = 0;
  for (hold& h : _holds) {
    for (auto it = h.captures.begin(); it != h.captures.end();) {
      struct stat status {};
      if (::stat(it->held_path.c_str(), &status) == 0) {
        it->inode = static_cast<uint64_t>(status.st_ino);
        ++it;
        continue;
      }
      if (_log != nullptr) _log->write(cdl::log_priority::warning, "Hold %lu: %s has vanished; dropped from the hold", h.id, it->held_path);
      it = h.captures.erase(it);
      ++dropped;
    }
  }
  if (dropped != 0) save();
  if (_log != nullptr && !_holds.empty()) {
    _log->info("Loaded %lu hold(s) from %s", static_cast<unsigned long>(_holds.size()), path);
  }
}

void hold_registry::save() const {
  const std::string path = _dir + "/" + STATE_FILE;
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << holds_to_json(_holds, _next_id);
    if (!out.flush()) throw hold_error(500, "cannot write " + temporary);
  }
  sync_path(temporary, O_RDONLY);
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    throw hold_error(500, "cannot replace " + path + ": " + errno_text(errno));
  }
  sync_path(_dir, O_RDONLY | O_DIRECTORY);
}

}  // namespace faitra_host
