// Building the catalogue for the faitra command: a tracker whose start-up
// scan survives captures with malformed attributes.
//
// The library's scan raises when a numeric attribute cannot be parsed. The
// builder then excludes the file being loaded (the filter's last accepted
// name), and scans again into a fresh catalogue, up to MAX_ATTEMPTS times.
// Other failures (a directory that cannot be opened) propagate.
#pragma once

#include <faitra/host/capture_filter.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include <memory>
#include <set>
#include <string>

namespace faitra_host {

struct catalogue {
  std::shared_ptr<csl::fs_cache> cache;
  std::shared_ptr<csl::fs_tracker> tracker;
};

constexpr unsigned MAX_ATTEMPTS = 1000;

// `group` must have exactly one channel. With `monitor` true the tracker
// follows the directories live once built.
catalogue build_catalogue(cdl::task_listener_group& group, const std::string& root,
                          const std::set<std::string>& paths, bool monitor, const capture_filter& filter,
                          cdl::log* log);

}  // namespace faitra_host
