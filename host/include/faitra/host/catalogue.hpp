// Building the catalogue for the faitra command: a tracker whose start-up
// scan survives captures with malformed attributes.
//
// The library's scan raises when a numeric attribute cannot be parsed. The
// builder then scans once more with a filter that checks the attributes
// first and refuses the files whose attributes are malformed (so at most
// two scans, whatever their number), and catalogues those files itself,
// the bad attribute treated as absent (the rest as the library's reader
// would read it). The host derives their metadata like that of any capture
// without attributes. Other failures (a directory that cannot be opened)
// propagate.
#pragma once

#include <faitra/host/capture_filter.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace faitra_host {

struct catalogue {
  std::shared_ptr<csl::fs_cache> cache;
  std::shared_ptr<csl::fs_tracker> tracker;
  std::vector<std::string> malformed;  // catalogued by the host; their records lack the bad attributes
};

// Inserts a record for each of `paths` (stat, then the attributes read
// leniently) into `cache`; returns the paths catalogued.
std::vector<std::string> catalogue_leniently(csl::fs_cache& cache, const std::vector<std::string>& paths);

// `group` must have exactly one channel. With `monitor` true the tracker
// follows the directories live once built.
catalogue build_catalogue(cdl::task_listener_group& group, const std::string& root,
                          const std::set<std::string>& paths, bool monitor, const capture_filter& filter,
                          cdl::log* log);

}  // namespace faitra_host
