#include "serve/root_options.hpp"

#include "option_values.hpp"
#include <faitra/host/time_text.hpp>

#include <optional>
#include <stdexcept>

namespace faitra_cli {

using namespace faitra_host;

namespace {

// --hard-limit: a fraction, or "off" (0); nothing when not given.
std::optional<double> parse_hard_limit(const std::string& text) {
  if (text.empty()) return std::nullopt;
  if (text == "off") return 0.0;
  try {
    size_t used = 0;
    const double value = std::stod(text, &used);
    if (used == text.size()) return value;
  } catch (const std::exception&) {
  }
  throw std::invalid_argument("--hard-limit: " + text +
                              " is not a fraction: expected a number between the trigger and 1, or off");
}

}  // namespace

void add_root_options(CLI::App& app, root_settings& s) {
  app.add_option("--watch", s.watch,
                 "Directory to catalogue and watch, inside the root; repeat for several (default: the root). "
                 "Subdirectories are not followed")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(CLI::ExistingDirectory)
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--trigger", s.trigger,
                 "Fraction of the file system in use (0 to 1) at which the automatic cleanup starts")
      ->capture_default_str()
      ->check(number_value(0.0, 1.0))
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--stop", s.stop,
                 "Fraction in use below which the automatic cleanup stops deleting; 0 < stop <= trigger <= 1")
      ->capture_default_str()
      ->check(number_value(0.0, 1.0))
      ->group(ROOT_OPTIONS_GROUP);
  app.add_flag("--no-auto-cleanup", s.no_auto_cleanup,
               "Never delete captures by disk usage (age and metadata cleanups on request still work)")
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--suffix", s.suffixes,
                 "File name ending of a capture; repeat for several (default: .pcap and .pcapng)")
      ->check(suffix_value())
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--metadata-cleanup-cmd", s.metadata_cleanup_cmd,
                 "Command that deletes the metadata kept elsewhere about a time range. It is split on spaces "
                 "(no shell, no quoting) and run with the range's start and end in nanoseconds appended as two "
                 "more arguments. Exit status 0 is success; otherwise its standard error is the error text. "
                 "Without it, there is no metadata to clean")
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--reset-disk-cache-cmd", s.reset_disk_cache_cmd,
                 "Command (split on spaces, no shell, no arguments added) run before the cleanup reads the disk "
                 "figures; exit status 0 is success. Without it, nothing is refreshed")
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--max-age", s.max_age,
                 "Delete captures created longer ago than this (7d, 12h, 1h30m, or seconds), checked at start "
                 "and every minute through the age cleanup of files (default: no limit by age)")
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--hard-limit", s.hard_limit,
                 "Fraction in use (above --trigger, below 1) at which the oldest captures are deleted at once, "
                 "without the automatic cleanup's pauses, until usage is under it; off to disable (default: "
                 "0.97 while the automatic cleanup is on with a lower trigger, otherwise off)")
      ->group(ROOT_OPTIONS_GROUP);
  app.add_option("--hold-dir", s.hold_dir,
                 "Directory for evidence holds, on the captures' file system and outside the watched "
                 "directories (default: ROOT/.faitra-holds)")
      ->group(ROOT_OPTIONS_GROUP);
}

root_settings apply_root_table(root_settings global, const root_table& table) {
  CLI::App app;
  // A list given by the table replaces the global one, as the command line
  // replaces the file's.
  root_settings mine = global;
  add_root_options(app, mine);
  std::vector<std::string> args(table.args.rbegin(), table.args.rend());
  try {
    app.parse(args);
  } catch (const CLI::ParseError& e) {
    throw std::invalid_argument(table.place + ": root " + table.path + ": " + e.what());
  }
  return mine;
}

daemon_options root_daemon_options(const std::string& root, const root_settings& s) {
  daemon_options o;
  o.root = root;
  o.watch.insert(s.watch.begin(), s.watch.end());
  o.trigger = s.trigger;
  o.stop = s.stop;
  o.auto_cleanup = !s.no_auto_cleanup;
  if (!s.suffixes.empty()) o.suffixes = s.suffixes;
  o.metadata_cleanup_cmd = s.metadata_cleanup_cmd;
  o.reset_disk_cache_cmd = s.reset_disk_cache_cmd;
  if (!s.max_age.empty()) {
    std::string error;
    o.max_age_ns = parse_duration_ns(s.max_age, error);
    if (!o.max_age_ns) throw std::invalid_argument("--max-age: " + error);
  }
  o.hard_limit = parse_hard_limit(s.hard_limit);
  o.hold_dir = s.hold_dir;
  return o;
}

}  // namespace faitra_cli
