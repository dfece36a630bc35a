// The client subcommands: talk to a running `faitra serve` over its HTTP
// API and print readable tables, or the API's JSON with --json.
//
// Exit status: 0 on success, 1 when the daemon refused the request or could
// not be reached (the reason goes to standard error).
#include "client/client_support.hpp"
#include "commands.hpp"
#include "option_values.hpp"
#include <faitra/host/time_text.hpp>
#include <faitra/host/escaped_bytes.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace faitra_cli {

using namespace faitra_host;

namespace {

void print_records(const rapidjson::Value& records) {
  std::vector<std::vector<std::string>> rows;
  if (records.IsArray()) {
    for (const auto& r : records.GetArray()) {
      rows.push_back({text_of(member(r, "path")), text_of(member(r, "file_size")),
                      time_text_of(member(r, "start_ts")), time_text_of(member(r, "end_ts")),
                      time_text_of(member(r, "creation_ts"), true), text_of(member(r, "key")),
                      member(r, "pending_deletion").IsTrue() ? "pending" : ""});
    }
  }
  print_table({"PATH", "SIZE", "FIRST_PACKET", "LAST_PACKET", "CREATED", "HASH", "DELETION"}, rows);
}

httplib::Params range_params(const std::string& start, const std::string& end, bool seconds = false) {
  return {{"start", std::to_string(time_option("--start", start, seconds))},
          {"end", std::to_string(time_option("--end", end, seconds))}};
}

// A subcommand with no options of its own: one request, and its answer
// printed by `show` (as it came with --json).
void register_plain(CLI::App& app, int& exit_code, const char* name, const char* help, const char* method,
                    const char* path, std::function<void(const answer&)> show) {
  auto o = std::make_shared<client_options>();
  auto* sub = app.add_subcommand(name, help);
  add_client_options(sub, *o);
  sub->callback([o, method, path, show = std::move(show), &exit_code] {
    exit_code = guarded([&] {
      const answer a = call(*o, method, path);
      if (o->json) {
        std::cout << a.body << "\n";
      } else {
        show(a);
      }
    });
  });
}

void register_ls(CLI::App& app, int& exit_code) {
  struct options : client_options {
    std::optional<std::string> start, end;
    std::optional<unsigned long> limit;
    std::string match = "overlap";
    std::optional<std::string> key, path;
  };
  auto o = std::make_shared<options>();
  auto* sub = app.add_subcommand("ls", "List the catalogued captures (all in path order, or those whose packets "
                                       "overlap [--start, --end], in time order), or look one up by --key or "
                                       "--path");
  add_client_options(sub, *o);
  auto* start = sub->add_option("--start", o->start, std::string("Start of the range (with --end): ") + TIME_HELP);
  auto* end = sub->add_option("--end", o->end, "End of the range, inclusive (with --start)");
  start->needs(end);
  end->needs(start);
  auto* match = sub->add_option("--match", o->match,
                                "With a range: overlap (first to last packet overlaps it) or start (first packet "
                                "lies in it)")
                    ->check(CLI::IsMember({"overlap", "start"}))
                    ->capture_default_str()
                    ->needs(start);
  auto* limit = sub->add_option("--limit", o->limit, "List at most this many captures")->check(unsigned_value(1));
  auto* key = sub->add_option("--key", o->key, "Show the capture with this hash (user.pcap_hash)");
  auto* path = sub->add_option("--path", o->path, "Show the capture catalogued at exactly this path");
  for (CLI::Option* lookup : {key, path}) lookup->excludes(start)->excludes(end)->excludes(match)->excludes(limit);
  key->excludes(path);
  sub->callback([o, &exit_code] {
    exit_code = guarded([&] {
      if (o->key || o->path) {
        const answer a = call(*o, "GET", "/v1/captures/lookup",
                              {{o->key ? "key" : "path", o->key ? *o->key : *o->path}});
        if (o->json) {
          std::cout << a.body << "\n";
          return;
        }
        rapidjson::Document one;
        one.SetArray().PushBack(rapidjson::Value(a.doc, one.GetAllocator()), one.GetAllocator());
        print_records(one);
        return;
      }
      httplib::Params params;
      if (o->start) {
        params = range_params(*o->start, *o->end);
        params.emplace("match", o->match);
      }
      if (o->limit) params.emplace("limit", std::to_string(*o->limit));
      const answer a = call(*o, "GET", "/v1/captures", params);
      if (o->json) {
        std::cout << a.body << "\n";
        return;
      }
      print_records(member(a.doc, "captures"));
      const auto& skipped = member(a.doc, "skipped");
      if (skipped.IsUint64() && skipped.GetUint64() > 0) {
        std::cout << skipped.GetUint64() << " capture(s) without packet times left out\n";
      }
    });
  });
}

void register_rm(CLI::App& app, int& exit_code) {
  struct options : client_options {
    std::string path;
    std::optional<std::string> start, end;
    std::string by = "start";
    bool all = false;
  };
  auto o = std::make_shared<options>();
  auto* sub = app.add_subcommand(
      "rm", "Mark captures for deletion: one catalogued PATH, every capture in [--start, --end], or --all. "
            "The daemon's delete thread removes the files");
  add_client_options(sub, *o);
  auto* path = sub->add_option("PATH", o->path, "Exact catalogued path of one capture");
  auto* start = sub->add_option("--start", o->start, std::string("Start of the range, inclusive: ") + TIME_HELP +
                                                      "; a plain integer is ns with --by start, seconds with "
                                                      "--by creation");
  auto* end = sub->add_option("--end", o->end, "End of the range, inclusive");
  auto* by = sub->add_option("--by", o->by, "Timestamp the range applies to: start (first packet) or creation")
                 ->check(CLI::IsMember({"start", "creation"}))
                 ->capture_default_str();
  auto* all = sub->add_flag("--all", o->all, "Mark every catalogued capture");
  start->needs(end);
  end->needs(start);
  by->needs(start);
  path->excludes(start)->excludes(end)->excludes(all);
  all->excludes(start)->excludes(end);
  sub->callback([o, path, start, all, &exit_code] {
    exit_code = guarded([&] {
      if (path->count() == 0 && start->count() == 0 && all->count() == 0) {
        throw failure("give PATH, --start and --end, or --all");
      }
      httplib::Params params;
      if (path->count() > 0) {
        params.emplace("path", o->path);
      } else if (o->all) {
        params.emplace("all", "true");
      } else {
        params = range_params(*o->start, *o->end, o->by == "creation");
        params.emplace("by", o->by);
      }
      const answer a = call(*o, "DELETE", "/v1/captures", params);
      if (o->json) {
        std::cout << a.body << "\n";
        return;
      }
      const auto& marked = member(a.doc, "marked");
      if (marked.IsBool()) {
        std::cout << (marked.GetBool() ? "marked for deletion: " : "already marked for deletion: ") << o->path
                  << "\n";
      } else if (marked.IsUint64()) {
        std::cout << "marked for deletion: " << marked.GetUint64() << " capture(s)\n";
      } else {
        std::cout << "marked for deletion: " << (marked.IsArray() ? marked.Size() : 0) << " capture(s)\n";
        if (marked.IsArray() && marked.Size() > 0) print_records(marked);
      }
    });
  });
}

void register_df(CLI::App& app, int& exit_code) {
  const char* help = "Show the capture file system's used and total bytes";
  register_plain(app, exit_code, "df", help, "GET", "/v1/storage", [](const answer& a) {
    const auto& space = member(a.doc, "disk_space");
    const unsigned long used = member(space, "used").IsUint64() ? member(space, "used").GetUint64() : 0;
    const unsigned long total = member(space, "total").IsUint64() ? member(space, "total").GetUint64() : 0;
    char percent[16];
    std::snprintf(percent, sizeof percent, "%.1f%%",
                  total == 0 ? 0.0 : 100.0 * static_cast<double>(used) / static_cast<double>(total));
    print_table({"USED", "TOTAL", "USE%", "USED_BYTES", "TOTAL_BYTES"},
                {{human_bytes(used), human_bytes(total), percent, std::to_string(used), std::to_string(total)}});
  });
}

void print_accepted(const client_options& o, const answer& a, const std::string& what) {
  if (o.json) {
    std::cout << a.body << "\n";
  } else {
    std::cout << "accepted: " << what << " (it runs in the daemon; see its log)\n";
  }
}

// --age: seconds since the epoch, an age with a unit (that long ago), or a
// time text; the cut-off in seconds.
unsigned long cutoff_option(const std::string& text) {
  std::string error;
  const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  if (digits) return time_option("--age", text, true);
  if (const auto age = parse_duration_ns(text, error)) {
    const uint64_t now = wall_clock_ns();
    if (*age > now) throw failure("--age: " + text + " reaches back before 1970");
    return (now - *age) / NS_PER_SECOND;
  }
  const auto ns = parse_time_ns(text, wall_clock_ns(), error);
  if (!ns) throw failure("--age: " + error + "; or an age like 7d");
  return *ns / NS_PER_SECOND;
}

// The captures of a dry run or a plan, and what they add up to.
void print_plan(const answer& a) {
  const auto& captures = member(a.doc, "captures");
  const unsigned long bytes = member(a.doc, "bytes").IsUint64() ? member(a.doc, "bytes").GetUint64() : 0;
  if (captures.IsArray() && captures.Size() > 0) print_records(captures);
  std::cout << "would delete " << (captures.IsArray() ? captures.Size() : 0) << " capture(s), "
            << human_bytes(bytes) << " (" << bytes << " bytes)\n";
}

void register_cleanup(CLI::App& app, int& exit_code) {
  struct options : client_options {
    std::string age;
    std::string mode;
    bool dry_run = false;
    bool plan = false;
  };
  auto o = std::make_shared<options>();
  auto* sub = app.add_subcommand(
      "cleanup", "Delete captures and/or their metadata created up to an absolute cut-off time; with --dry-run "
                 "only show what that would delete; with --plan show what the automatic cleanup would delete now");
  add_client_options(sub, *o);
  auto* age = sub->add_option("--age", o->age,
                              "Cut-off: every capture created at or before it is concerned. An age (7d, 12h, 90m: "
                              "that long ago), a time (RFC 3339, or relative like -7d), or a plain integer: seconds "
                              "since the epoch on the capture clock (the creation timestamp's clock)");
  auto* mode = sub->add_option("--mode", o->mode, "What to delete: files, metadata or both")
                   ->check(CLI::IsMember({"files", "metadata", "both"}));
  auto* dry_run = sub->add_flag("--dry-run", o->dry_run,
                                "List the captures (and the metadata range) the cleanup would delete, and their "
                                "bytes, without deleting or marking anything");
  auto* plan = sub->add_flag("--plan", o->plan,
                             "List what the automatic cleanup would delete if it ran now, marking nothing");
  age->needs(mode);
  mode->needs(age);
  dry_run->needs(age);
  plan->excludes(age)->excludes(mode)->excludes(dry_run);
  sub->callback([o, &exit_code] {
    exit_code = guarded([&] {
      if (o->plan) {
        const answer a = call(*o, "GET", "/v1/cleanup/plan");
        if (o->json) {
          std::cout << a.body << "\n";
          return;
        }
        std::cout << "usage " << text_of(member(member(a.doc, "usage"), "fraction")) << ", trigger "
                  << text_of(member(a.doc, "trigger")) << ", stop " << text_of(member(a.doc, "stop")) << ": "
                  << (member(a.doc, "would_run").IsTrue() ? "a run would start now" : "no run would start now")
                  << "\n";
        print_plan(a);
        return;
      }
      if (o->age.empty()) throw failure("give --age and --mode, or --plan");
      const unsigned long cutoff = cutoff_option(o->age);
      const std::string body = "{\"mode\": \"" + o->mode + "\", \"cutoff\": " + std::to_string(cutoff) +
                               (o->dry_run ? ", \"dry_run\": true}" : "}");
      const answer a = call(*o, "POST", "/v1/cleanup/age", {}, body);
      if (!o->dry_run) {
        print_accepted(*o, a, "age cleanup of " + o->mode + " of captures created up to " +
                                  format_time_ns(cutoff * NS_PER_SECOND) + " (" + std::to_string(cutoff) + " s)");
      } else if (o->json) {
        std::cout << a.body << "\n";
      } else {
        print_plan(a);
        const auto& range = member(a.doc, "metadata_range");
        if (range.IsObject()) {
          std::cout << "would clean metadata of " << text_of(member(range, "start")) << "-"
                    << text_of(member(range, "end")) << " ns\n";
        }
      }
    });
  });
}

void register_metadata_cleanup(CLI::App& app, int& exit_code) {
  struct options : client_options {
    std::optional<std::string> start, end;
    std::string automatic;
  };
  auto o = std::make_shared<options>();
  auto* sub = app.add_subcommand(
      "metadata-cleanup",
      "Delete the metadata of captures in a time range through the daemon's metadata cleanup command, or "
      "switch the automatic cleanup's metadata step on or off");
  add_client_options(sub, *o);
  auto* start = sub->add_option("--start", o->start, std::string("Start of the range: ") + TIME_HELP);
  auto* end = sub->add_option("--end", o->end, "End of the range, inclusive");
  auto* automatic = sub->add_option("--automatic", o->automatic,
                                    "on or off: whether the automatic cleanup also cleans metadata")
                        ->check(CLI::IsMember({"on", "off"}));
  start->needs(end);
  end->needs(start);
  automatic->excludes(start)->excludes(end);
  sub->callback([o, start, automatic, &exit_code] {
    exit_code = guarded([&] {
      if (automatic->count() > 0) {
        const answer a = call(*o, "PUT", "/v1/cleanup/metadata/automatic", {},
                              std::string("{\"enabled\": ") + (o->automatic == "on" ? "true" : "false") + "}");
        if (o->json) {
          std::cout << a.body << "\n";
        } else {
          std::cout << "automatic metadata cleanup: " << o->automatic << "\n";
        }
        return;
      }
      if (start->count() == 0) throw failure("give --start and --end, or --automatic on|off");
      const unsigned long first = time_option("--start", *o->start);
      const unsigned long last = time_option("--end", *o->end);
      const std::string body =
          "{\"start\": " + std::to_string(first) + ", \"end\": " + std::to_string(last) + "}";
      const answer a = call(*o, "POST", "/v1/cleanup/metadata", {}, body);
      print_accepted(*o, a, "metadata cleanup of " + format_time_ns(first) + " to " + format_time_ns(last));
    });
  });
}

void register_status(CLI::App& app, int& exit_code) {
  const char* help = "Show the daemon's state: captures, usage, cleanup, reconcile, retention and holds";
  register_plain(app, exit_code, "status", help, "GET", "/v1/status", [](const answer& a) {
    const auto& d = a.doc;
    const auto& usage = member(d, "usage");
    const auto& cleanup = member(d, "cleanup");
    const auto& reconcile = member(d, "reconcile");
    const unsigned long used = member(usage, "used").IsUint64() ? member(usage, "used").GetUint64() : 0;
    const unsigned long total = member(usage, "total").IsUint64() ? member(usage, "total").GetUint64() : 0;
    std::vector<std::vector<std::string>> rows = {
        {"version", text_of(member(d, "version"))},
        {"root", text_of(member(d, "root"))},
        {"captures", text_of(member(d, "captures"))},
        {"usage", human_bytes(used) + " of " + human_bytes(total) + " (fraction " +
                      text_of(member(usage, "fraction")) + ")"},
        {"trigger / stop", text_of(member(d, "trigger")) + " / " + text_of(member(d, "stop"))},
        {"oldest / newest packet", time_text_of(member(member(d, "retention"), "oldest_start")) + " / " +
                                       time_text_of(member(member(d, "retention"), "newest_start"))},
        {"automatic cleanup", text_of(member(d, "automatic_cleanup"))},
        {"automatic metadata cleanup", text_of(member(d, "automatic_metadata_cleanup"))},
        {"cleanup in progress", text_of(member(d, "cleanup_in_progress"))},
        {"cleanup runs", text_of(member(cleanup, "runs"))},
        {"deleted on request", text_of(member(cleanup, "deleted_on_request"))},
        {"deleted by cleanup", text_of(member(cleanup, "deleted_by_cleanup"))},
        {"removed by others", text_of(member(cleanup, "removed_externally"))},
        {"reconcile runs", text_of(member(reconcile, "runs"))},
        {"drift repaired", "added " + text_of(member(reconcile, "added")) + ", removed " +
                               text_of(member(reconcile, "removed")) + ", updated " +
                               text_of(member(reconcile, "updated"))},
    };
    const auto& max_age = member(d, "max_age");
    rows.push_back({"max age", max_age.IsNull() ? "none"
                                                : text_of(member(max_age, "duration")) + " (deleted " +
                                                      text_of(member(max_age, "deleted")) + ")"});
    const auto& hard = member(d, "hard_limit");
    rows.push_back({"hard limit", hard.IsNull() ? "off"
                                                : text_of(member(hard, "fraction")) + " (deleted " +
                                                      text_of(member(hard, "deleted")) + ", highest usage " +
                                                      text_of(member(hard, "highest_fraction")) + ")"});
    const auto& holds = member(d, "holds");
    const auto& held = member(holds, "bytes");
    rows.push_back({"holds", text_of(member(holds, "count")) + " holding " + text_of(member(holds, "captures")) +
                                 " capture(s), " + human_bytes(held.IsUint64() ? held.GetUint64() : 0)});
    print_table({"FIELD", "VALUE"}, rows);
    const auto& problems = member(d, "scan_problems");
    if (problems.IsArray() && problems.Size() > 0) {
      std::cout << "\nskipped at start:\n";
      for (const auto& p : problems.GetArray()) {
        std::cout << "  " << text_of(member(p, "name")) << ": " << text_of(member(p, "reason")) << "\n";
      }
    }
  });
}

void register_reconcile(CLI::App& app, int& exit_code) {
  const char* help = "Compare the catalogue with the directories now, repair what differs, and show the repairs";
  register_plain(app, exit_code, "reconcile", help, "POST", "/v1/reconcile", [](const answer& a) {
    std::cout << "added " << text_of(member(a.doc, "added")) << ", removed " << text_of(member(a.doc, "removed"))
              << ", updated " << text_of(member(a.doc, "updated")) << ", deferred "
              << text_of(member(a.doc, "deferred")) << "\n";
  });
}

}  // namespace

void register_client(CLI::App& app, int& exit_code) {
  register_ls(app, exit_code);
  register_rm(app, exit_code);
  register_df(app, exit_code);
  register_cleanup(app, exit_code);
  register_metadata_cleanup(app, exit_code);
  register_status(app, exit_code);
  register_reconcile(app, exit_code);
  register_hold(app, exit_code);
}

}  // namespace faitra_cli
