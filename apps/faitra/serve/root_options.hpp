// The options of `faitra serve` that each capture root may set for itself.
//
// Given on the command line (or as top-level keys of the configuration
// file) they apply to every root; a `[[root]]` table of the file sets them
// for the root with its path (config_file.hpp reads the tables). The
// options are registered on the serve command by add_root_options, and the
// same registration parses a table's values, so a table's value is checked
// exactly as the command line's.
//
// Thread-safety: pure functions, run before anything starts.
#pragma once

#include "serve/config_file.hpp"
#include <faitra/host/daemon.hpp>

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace faitra_cli {

struct root_settings {
  std::vector<std::string> watch;
  float trigger = 0.9F;
  float stop = 0.8F;
  bool no_auto_cleanup = false;
  std::vector<std::string> suffixes;
  std::string metadata_cleanup_cmd;
  std::string reset_disk_cache_cmd;
  std::string max_age;
  std::string hard_limit;
  std::string hold_dir;
};


// Registers the per-root options on `app`, bound to `settings`, in the
// group ROOT_OPTIONS_GROUP.
void add_root_options(CLI::App& app, root_settings& settings);

// `global` with the options of `table` applied; raises std::invalid_argument
// naming the table's place when a value is refused.
root_settings apply_root_table(root_settings global, const root_table& table);

// The daemon's options for `root` from `settings`; raises
// std::invalid_argument naming the option whose value is unusable.
faitra_host::daemon_options root_daemon_options(const std::string& root, const root_settings& settings);

}  // namespace faitra_cli
