// The capture filter of the faitra command: which directory entries are
// captures, plus the host-side defences of the start-up scan.
//
// A name is a capture when it ends with one of the suffixes and names a
// regular file or a symbolic link to one: directories, FIFOs, sockets,
// devices, links to anything else and dangling links are not (the library's
// scan lets such entries through on purpose, leaving the choice to the
// filter); a dangling link met by a scan is recorded as a problem, once. A path that no longer exists is accepted, so that its removal
// reaches the catalogue. The filter is called with bare names during scans
// and with full paths by the monitor. A bare name is looked up in every
// watched directory and accepted when one of them holds it as a capture; a
// name that is a capture in one watched directory and something else in
// another is thus catalogued in both at start, and the first reconcile
// removes the other.
//
// Defences (state shared by every copy of the filter):
//  - names excluded after their attributes could not be parsed are refused;
//  - when the scan offers the same name again at once, the previous stat of
//    it failed; once the file is gone from every watched directory (or after
//    MAX_STAT_RETRIES offers) the name is refused, which ends the scan's
//    retry of that entry.
// Every refusal of either kind is recorded as a scan problem, once per
// name.
//
// After validate_attributes(), a bare name (the scan's form) whose file has
// a numeric attribute that does not parse, in any watched directory, is
// refused too and its paths are listed by malformed_paths(): the host
// catalogues those itself with the bad attribute treated as absent. Full
// paths (the monitor's form) are never refused for their attributes.
//
// A start-up scan costs one lstat per name for the type check, unless
// learn_entry_types() ran first: it reads the watched directories' entry
// types once (one getdents64 per few hundred names), in the order the scan
// will offer the names, and until forget_entry_types() a bare name found
// there (at the scan's place in that order, or a few names further on) as
// a regular file is a capture without an lstat. Any other name is looked
// at as before. A name replaced by something else in between is still
// taken as the regular file it was; the monitor's events and the reconcile
// correct that as they correct any other change during a scan.
//
// Thread-safety: all copies share one mutex-protected state.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace faitra_host {

struct scan_problem {
  std::string name;    // bare file name
  std::string reason;  // readable cause
};

class capture_filter {
 public:
  static constexpr unsigned MAX_STAT_RETRIES = 100;

  capture_filter(std::vector<std::string> suffixes, std::set<std::string> watched_dirs);

  bool operator()(const std::string& name_or_path) const;

  // The name the scan last accepted: the file being loaded when a scan
  // raised.
  std::string last_accepted() const;
  void exclude(const std::string& name, const std::string& reason);
  std::vector<scan_problem> problems() const;

  bool has_capture_suffix(std::string_view name_or_path) const;

  // From now on, scans check the numeric attributes before the library
  // reads them.
  void validate_attributes();
  bool validating() const;
  // Full paths refused for a malformed attribute, in path order.
  std::vector<std::string> malformed_paths() const;

  // Reads which names of the watched directories are regular files, for the
  // scan that follows; a directory that cannot be read is left to lstat.
  void learn_entry_types();
  // Drops what learn_entry_types() read: later scans (after an overflow)
  // and the monitor check each name again.
  void forget_entry_types();

 private:
  // The names with a capture suffix of the watched directories, in
  // directory order, each with whether it was a regular file; `next` is
  // where the scan has got to.
  struct learnt_types {
    std::string names;         // one after another
    std::vector<size_t> ends;  // where each name ends in `names`
    std::vector<bool> regular;
    size_t next = 0;
    // Whether `name` is listed as a regular file at `next` or a few names
    // on; moves `next` past it when it is listed.
    bool regular_file(const std::string& name);
  };
  struct state {
    std::mutex mutex;
    std::vector<std::string> suffixes;
    std::set<std::string> watched_dirs;
    std::set<std::string> excluded;
    std::string last_accepted;
    unsigned repeats = 0;
    std::vector<scan_problem> problems;
    bool validate = false;
    std::set<std::string> malformed;  // full paths
    learnt_types learnt;
  };
  // With the state locked: records a problem unless the name has one.
  static void note(state& s, const std::string& name, const std::string& reason);
  std::shared_ptr<state> _state;
};

}  // namespace faitra_host
