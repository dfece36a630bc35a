// faitra scan: catalogues directories once, as the daemon's start-up scan
// does, prints every capture as one JSON record per line and exits.
#include <faitra/host/catalogue.hpp>
#include <faitra/host/record_json.hpp>
#include "commands.hpp"
#include "option_values.hpp"

#include <csl/fs_entry.hpp>

#include <cdl/exception.hpp>
#include <cdl/task_system.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace faitra_cli {

using namespace faitra_host;

namespace {

constexpr size_t OUTPUT_BUFFER_SIZE = 1 << 20;

struct scan_options {
  std::vector<std::string> dirs;
  std::vector<std::string> suffixes{".pcap", ".pcapng"};
};

std::string without_trailing_slashes(const std::string& dir) {
  const size_t last = dir.find_last_not_of('/');
  return last == std::string::npos ? std::string("/") : dir.substr(0, last + 1);
}

int run_scan(const scan_options& options) {
  std::set<std::string> dirs;
  for (const std::string& dir : options.dirs) {
    const std::string clean = without_trailing_slashes(dir);
    struct stat status {};
    if (::stat(clean.c_str(), &status) != 0) {
      std::fprintf(stderr, "faitra scan: %s: %s\n", dir.c_str(), std::strerror(errno));
      return 1;
    }
    if (!S_ISDIR(status.st_mode)) {
      std::fprintf(stderr, "faitra scan: %s: not a directory\n", dir.c_str());
      return 1;
    }
    dirs.insert(clean);
  }

  // The trackers only scan (no monitoring), so the worker never gets a task
  // with a handler; it exists because a tracker is built over a channel.
  // Declared first so the trackers outlive the listener and worker groups.
  std::vector<catalogue> catalogues;
  cdl::core core;
  cdl::worker_group workers(core, {1, "faitra scan"});
  cdl::task_listener_group listeners(workers);

  for (const std::string& dir : dirs) {
    capture_filter filter(options.suffixes, {dir});
    try {
      catalogues.push_back(build_catalogue(listeners, dir, {dir}, false, filter, nullptr));
    } catch (const cdl::exception& e) {
      std::fprintf(stderr, "faitra scan: %s: %s\n", dir.c_str(), e.what());
      return 1;
    }
    for (const scan_problem& problem : filter.problems()) {
      std::fprintf(stderr, "faitra scan: skipped %s/%s: %s\n", dir == "/" ? "" : dir.c_str(), problem.name.c_str(),
                   problem.reason.c_str());
    }
  }

  std::vector<std::unique_ptr<csl::fs_cache::shared_guard>> guards;
  std::vector<std::pair<std::string_view, const csl::fs_entry*>> records;
  for (const catalogue& c : catalogues) {
    guards.push_back(std::make_unique<csl::fs_cache::shared_guard>(*c.cache));
    for (const auto& entry : c.cache->path_cache()) records.emplace_back(entry->path, entry.get());
  }
  // Each catalogue is in path order already; several roots interleave.
  if (catalogues.size() > 1) {
    std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  }

  // Each line is rendered straight into one large buffer (the record's JSON
  // form, as to_json writes it), which goes out in whole blocks.
  std::string output;
  output.reserve(OUTPUT_BUFFER_SIZE + 4096);
  bool written = true;
  for (const auto& record : records) {
    append_record_json(output, *record.second);
    output += '\n';
    if (output.size() >= OUTPUT_BUFFER_SIZE) {
      written = written && std::fwrite(output.data(), 1, output.size(), stdout) == output.size();
      output.clear();
    }
  }
  written = written && std::fwrite(output.data(), 1, output.size(), stdout) == output.size();
  if (std::fflush(stdout) != 0 || !written) {
    std::fprintf(stderr, "faitra scan: writing the output: %s\n", std::strerror(errno));
    return 1;
  }
  // The catalogues are left for the process's exit to reclaim: freeing a
  // large catalogue record by record would add about a tenth to the run.
  guards.clear();
  static auto* const left_to_exit = new std::vector<catalogue>();
  *left_to_exit = std::move(catalogues);
  return 0;
}

}  // namespace

void register_scan(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<scan_options>();
  auto* sub = app.add_subcommand("scan", "List the captures of directories once, as JSON lines, and exit.");
  sub->footer(
      "Each DIR is scanned as its own root, without recursing, exactly as 'faitra serve' scans at start.\n"
      "Output: one JSON object per capture, in path order across all DIRs:\n"
      "  {\"path\":...,\"key\":...,\"creation_ts\":...,\"start_ts\":...,\"end_ts\":...,\"file_size\":...,"
      "\"pending_deletion\":false}\n"
      "key, start_ts and end_ts are null when the file lacks the attribute; creation_ts falls back to the\n"
      "modification time in seconds. A file whose numeric attribute cannot be parsed is listed with that\n"
      "attribute treated as absent, and reported on standard error, as is a file that vanishes during the\n"
      "scan (left out); the exit status stays 0.\n"
      "Exit status 1 when a DIR is missing, is not a directory or cannot be read.\n");
  sub->add_option("DIR", options->dirs, "Capture directories")->required();
  sub->add_option("--suffix", options->suffixes,
                  "A file is a capture when its name ends with one of these (repeatable; replaces the default)")
      ->check(suffix_value())
      ->allow_extra_args(false)
      ->capture_default_str();
  sub->callback([options, &exit_code] { exit_code = run_scan(*options); });
}

}  // namespace faitra_cli
