#include <faitra/host/catalogue.hpp>

#include <cdl/exception.hpp>

namespace faitra_host {

catalogue build_catalogue(cdl::task_listener_group& group, const std::string& root,
                          const std::set<std::string>& paths, bool monitor, const capture_filter& filter,
                          cdl::log* log) {
  capture_filter shared = filter;  // copies share their state
  for (unsigned attempt = 1;; ++attempt) {
    auto cache = std::make_shared<csl::fs_cache>();
    try {
      auto tracker = std::make_shared<csl::fs_tracker>(group, cache, root, paths, monitor, shared, 0, log);
      return {cache, tracker};
    } catch (const cdl::unrecognized_value_error& e) {
      if (attempt >= MAX_ATTEMPTS) throw;
      shared.exclude(shared.last_accepted(), std::string("malformed attribute: ") + e.what());
    } catch (const cdl::not_in_range_error& e) {
      if (attempt >= MAX_ATTEMPTS) throw;
      shared.exclude(shared.last_accepted(), std::string("attribute out of range: ") + e.what());
    }
    if (log != nullptr) log->error("Skipping %s: %s", shared.problems().back().name, shared.problems().back().reason);
  }
}

}  // namespace faitra_host
