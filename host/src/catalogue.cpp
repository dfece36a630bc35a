#include <faitra/host/catalogue.hpp>

#include <faitra/host/capture_attributes.hpp>

#include <cdl/exception.hpp>

#include <sys/stat.h>

namespace faitra_host {

std::vector<std::string> catalogue_leniently(csl::fs_cache& cache, const std::vector<std::string>& paths) {
  std::vector<std::string> out;
  for (const std::string& path : paths) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) continue;
    auto record = std::make_shared<csl::fs_entry>(path);
    record->creation_ts = status.st_mtim.tv_sec;  // as the library's reader, unless the attribute says otherwise
    record->file_size = static_cast<unsigned long>(status.st_size);
    read_capture_attributes(path).apply_to(*record);
    if (cache.insert(std::move(record))) out.push_back(path);
  }
  return out;
}

catalogue build_catalogue(cdl::task_listener_group& group, const std::string& root,
                          const std::set<std::string>& paths, bool monitor, const capture_filter& filter,
                          cdl::log* log) {
  capture_filter shared = filter;  // copies share their state
  // The learnt types are for the start-up scan only: later scans (after an
  // overflow) and the monitor check each name again.
  struct forgetter {
    capture_filter& filter;
    ~forgetter() { filter.forget_entry_types(); }
  } forget_after_scan{shared};
  for (;;) {
    auto cache = std::make_shared<csl::fs_cache>();
    shared.learn_entry_types();  // for each scan: the names are offered again from the start
    try {
      auto tracker = std::make_shared<csl::fs_tracker>(group, cache, root, paths, monitor, shared, 0, log);
      return {cache, tracker, catalogue_leniently(*cache, shared.malformed_paths())};
    } catch (const cdl::exception& e) {
      const bool attribute = dynamic_cast<const cdl::unrecognized_value_error*>(&e) != nullptr ||
                             dynamic_cast<const cdl::not_in_range_error*>(&e) != nullptr;
      if (!attribute || shared.validating()) throw;
      if (log != nullptr) log->info("A capture has a malformed attribute (%s); scanning again with checks", e.what());
      shared.validate_attributes();
    }
  }
}

}  // namespace faitra_host
