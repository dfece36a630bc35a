// `faitra serve --config FILE`: the daemon's options from a TOML file.
//
// Every long option of `faitra serve` is a key of the file, named as the
// option without its dashes ("trigger", "reconcile-interval", or with
// underscores, "reconcile_interval"); the keys follow the options, so an
// option added to the command is a key at once. Values: a string or a
// number for an option that takes a value, true or false for a flag, an
// array for an option that may be repeated (--watch, --suffix).
//
// The file is turned into command-line arguments placed before the real
// ones, leaving out every option that the real command line gives: the
// command line wins, and a repeatable option given there replaces the
// file's whole list. The command's own parser then checks every value as
// it checks the command line's; its errors about an option that came from
// the file are given the file, line and key (explain_error).
//
// Capture roots: `root = "DIR"` (or an array of directories) gives roots
// that take the top-level options; `[[root]]` tables give one root each,
// with its `path` and any of the per-root options (root_options.hpp),
// which win over the top-level ones for that root. The command line's
// --root replaces the file's roots; a table's options then apply to a
// root given with the same path.
//
// Errors (config_error), each naming the file, the line and the key: a
// file that is not valid TOML, an unknown key, a table (other than
// [[root]]), a value of the wrong type, an array for an option that takes
// one value, a [[root]] table without its path or with a key that is not a
// per-root option.
//
// Thread-safety: pure functions, run before anything starts.
#pragma once

#include <CLI/CLI.hpp>

#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace faitra_cli {

class config_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The group of the options that a [[root]] table may set (root_options.hpp
// puts them there).
inline constexpr const char* ROOT_OPTIONS_GROUP = "Options for every root, or one root's in its [[root]] table";

// One `[[root]]` table: its path, its options as command-line arguments,
// where it is in the file ("FILE:LINE"), and its keys as TOML lines.
struct root_table {
  std::string path;
  std::vector<std::string> args;
  std::string place;
  std::string toml;
};

// Where each option taken from a file was set: long name -> "FILE:LINE: key 'K'".
using config_sources = std::map<std::string, std::string>;

// `args` (without the program name) with the options of the file named by
// `--config FILE` among the arguments of the `serve` subcommand inserted
// after "serve". Arguments without `serve --config` come back unchanged.
std::vector<std::string> with_config_file(const std::vector<std::string>& args, const CLI::App& serve,
                                          config_sources& sources);

// The options of a parsed `serve` as a configuration file: every key with
// its value in effect (given, or the default), for --check-config.
// The [[root]] tables written as the tables of `tables` (from
// read_root_tables) in place of the key root.
std::string effective_config(const CLI::App& serve, const std::vector<root_table>& tables = {});

// The [[root]] tables of the configuration file `file` (none when `file`
// is empty or has none). Raises config_error.
std::vector<root_table> read_root_tables(const std::string& file, const CLI::App& serve);

// The command-line arguments that the TOML `text` (read from `file`) stands
// for, leaving out the options named in `given`; `sources` gets the file,
// line and key of each option it sets. Raises config_error.
std::vector<std::string> config_arguments(const std::string& text, const std::string& file, const CLI::App& serve,
                                          const std::set<std::string>& given, config_sources& sources);

// `message` of a parse error, with the file, line and key of the options
// it names that came from a file.
std::string explain_error(const std::string& message, const config_sources& sources);

}  // namespace faitra_cli
