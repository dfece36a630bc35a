// Evidence holds: captures kept from every cleanup until released.
//
// A hold names captures by a time window (those whose packets overlap it)
// or by their catalogued paths, with a reason and an optional expiry. Each
// held capture is hard-linked into DIR/<id>/ (DIR must be on the file
// system of the captures and outside the watched directories, so nothing
// there is catalogued). The library's cleanups are left as they are: when
// one removes a held capture, only its name in the watched directory goes;
// the bytes stay under DIR, are listed with the hold and count in the file
// system's usage. Releasing a hold (on request or at its expiry) removes its
// links, which frees the bytes no other name keeps.
//
// A window hold that reaches within WINDOW_FOLLOW of now keeps taking the
// captures that arrive and overlap it (a capture being written is
// catalogued only when it is closed): extend() links them.
//
// Holds persist in DIR/holds.json (written to a temporary file, synced and
// renamed over the old one after each change) and are loaded at start; a
// held file that has vanished is dropped from its hold with a warning.
// Nothing is created under DIR until the first hold.
//
// Thread-safety: every operation takes the registry's mutex; catalogue
// queries happen before it is taken, so the catalogue's lock is never held
// inside it nor it inside the catalogue's lock.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>

#include <cdl/log.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace faitra_host {

// A refused hold operation with the HTTP status it maps to.
class hold_error : public std::runtime_error {
 public:
  hold_error(int status, const std::string& message) : std::runtime_error(message), _status(status) {}
  int status() const { return _status; }

 private:
  int _status;
};

struct time_window {
  uint64_t start = 0;
  uint64_t end = 0;
};

struct hold_request {
  std::optional<time_window> window;  // or paths
  std::vector<std::string> paths;
  std::string reason;
  std::optional<uint64_t> expires_ns;
};

struct held_capture {
  std::string path;       // the catalogued path when it was held
  std::string held_path;  // its link under the hold directory
  std::optional<std::string> key;
  std::optional<uint64_t> start_ts;
  std::optional<uint64_t> end_ts;
  unsigned long creation_ts = 0;
  unsigned long file_size = 0;
  uint64_t inode = 0;  // of the held file, for counting shared bytes once
};

struct hold {
  unsigned long id = 0;
  std::string reason;
  uint64_t created_ns = 0;
  std::optional<uint64_t> expires_ns;
  std::optional<time_window> window;
  std::vector<held_capture> captures;
};

struct hold_refusal {
  std::string path;
  std::string reason;
};

class hold_registry {
 public:
  static constexpr const char* STATE_FILE = "holds.json";
  static constexpr std::chrono::hours WINDOW_FOLLOW{1};

  // `captures_dir`: a watched directory, for the same-file-system check.
  hold_registry(std::string dir, std::string captures_dir, std::shared_ptr<csl::fs_cache> cache, cdl::log* log);

  // Holds what the request names as the catalogue has it now. A path that
  // is not catalogued refuses the whole request (404); a capture that
  // cannot be linked (removed meanwhile) is left out and reported in
  // `refused`.
  hold add(const hold_request& request, uint64_t now_ns, std::vector<hold_refusal>& refused);
  std::vector<hold> list() const;
  // False when there is no such hold.
  bool release(unsigned long id);
  // Releases the holds whose expiry has passed; how many.
  size_t expire(uint64_t now_ns);
  // Links captures that arrived since and overlap a followed window.
  void extend(uint64_t now_ns);

  // Catalogued paths of every held capture (for cleanups that can choose).
  std::set<std::string> held_paths() const;
  // Holds, held captures and bytes of distinct held files.
  struct totals {
    unsigned long holds = 0;
    unsigned long captures = 0;
    unsigned long bytes = 0;
  };
  totals summary() const;
  const std::string& dir() const { return _dir; }

 private:
  std::vector<csl::fs_entry> overlapping(const time_window& window) const;
  // Links `record` into the hold's directory; a refusal text, or empty.
  std::string link(hold& h, const csl::fs_entry& record);
  void ensure_dir();
  void load();
  void save() const;
  void remove_links(const hold& h) const;

  const std::string _dir;
  const std::string _captures_dir;
  std::shared_ptr<csl::fs_cache> _cache;
  cdl::log* _log;
  mutable std::mutex _mutex;
  std::vector<hold> _holds;
  unsigned long _next_id = 1;
};

}  // namespace faitra_host
