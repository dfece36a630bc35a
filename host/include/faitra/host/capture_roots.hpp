// Several capture roots in one daemon: one capture_daemon (one library
// stack: catalogue, tracker, storage, cleaner, and the host's parts) per
// root, each built from its own options (trigger, stop, suffixes, metadata
// commands...). The roots know nothing of each other; the API answers
// across them (apps/faitra/serve).
//
// Contract: the roots are checked before any is built: no root may be the
// same directory as another or lie inside it (the two trackers would both
// catalogue and delete the same files), and no two may export to the same
// sensor. Roots on one file system share one usage ceiling: each cleaner
// measures the same usage and deletes only its own captures, so the root
// with the lower trigger gives way first, and with equal thresholds both
// start together and each frees the whole excess from its own captures.
// That is allowed, and logged at start (shared_file_system()).
//
// The first root is the daemon's "first" root: the one that answers where
// the API names no root and cannot merge (see docs/api.md).
//
// Thread-safety: as capture_daemon; the set itself does not change after
// construction until shutdown().
#pragma once

#include <faitra/host/daemon.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace faitra_host {

// Raises std::invalid_argument when two of `roots` are the same directory
// or one lies inside another (symbolic links resolved).
void check_roots_apart(const std::vector<daemon_options>& roots);

// The pairs of indexes of `roots` whose directories are on one file system.
std::vector<std::pair<size_t, size_t>> roots_sharing_a_file_system(const std::vector<daemon_options>& roots);

class capture_roots {
 public:
  // Checks the roots, then builds them in order; raises (naming the root)
  // when one cannot be built, after shutting down those already built.
  explicit capture_roots(std::vector<daemon_options> roots);
  ~capture_roots();
  capture_roots(const capture_roots&) = delete;
  capture_roots& operator=(const capture_roots&) = delete;

  // Shuts every root down, the last built first.
  void shutdown();

  size_t size() const { return _daemons.size(); }
  capture_daemon& first() { return *_daemons.front(); }
  capture_daemon& at(size_t i) { return *_daemons.at(i); }
  // The root whose directory is `name` (as given or normalised), or null.
  capture_daemon* find(const std::string& name);
  // The roots' directories, comma separated, for messages.
  std::string names() const;

 private:
  std::vector<std::unique_ptr<capture_daemon>> _daemons;
};

}  // namespace faitra_host
