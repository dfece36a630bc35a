// faitra hold: evidence holds on a running daemon. `add` keeps captures
// (by a time window or by path) from every cleanup, `ls` lists the holds or
// the captures of one, `rm` releases one.
#include "client/client_support.hpp"
#include "commands.hpp"

#include <faitra/host/time_text.hpp>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace faitra_cli {

using namespace faitra_host;

namespace {

std::string hold_body(const std::vector<std::string>& paths, std::optional<unsigned long> start,
                      std::optional<unsigned long> end, const std::string& reason,
                      std::optional<unsigned long> expires) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  w.StartObject();
  if (start) {
    w.Key("start");
    w.Uint64(*start);
    w.Key("end");
    w.Uint64(*end);
  } else {
    w.Key("paths");
    w.StartArray();
    for (const std::string& p : paths) w.String(p.data(), static_cast<rapidjson::SizeType>(p.size()));
    w.EndArray();
  }
  w.Key("reason");
  w.String(reason.data(), static_cast<rapidjson::SizeType>(reason.size()));
  if (expires) {
    w.Key("expires");
    w.Uint64(*expires);
  }
  w.EndObject();
  return buffer.GetString();
}

std::string window_text(const rapidjson::Value& window) {
  if (!window.IsObject()) return "paths";
  return time_text_of(member(window, "start")) + " .. " + time_text_of(member(window, "end"));
}

void print_holds(const rapidjson::Value& answer) {
  std::vector<std::vector<std::string>> rows;
  const auto& holds = member(answer, "holds");
  if (holds.IsArray()) {
    for (const auto& h : holds.GetArray()) {
      const auto& captures = member(h, "captures");
      rows.push_back({text_of(member(h, "id")), time_text_of(member(h, "created")),
                      member(h, "expires").IsNull() ? "never" : time_text_of(member(h, "expires")),
                      window_text(member(h, "window")), std::to_string(captures.IsArray() ? captures.Size() : 0),
                      human_bytes(member(h, "bytes").IsUint64() ? member(h, "bytes").GetUint64() : 0),
                      text_of(member(h, "reason"))});
    }
  }
  print_table({"ID", "CREATED", "EXPIRES", "HOLDS", "CAPTURES", "SIZE", "REASON"}, rows);
  const unsigned long bytes = member(answer, "bytes").IsUint64() ? member(answer, "bytes").GetUint64() : 0;
  std::cout << "\n" << text_of(member(answer, "captures")) << " held capture(s), " << human_bytes(bytes)
            << " in " << text_of(member(answer, "dir")) << "\n";
}

void print_captures(const rapidjson::Value& hold) {
  std::vector<std::vector<std::string>> rows;
  const auto& captures = member(hold, "captures");
  if (captures.IsArray()) {
    for (const auto& c : captures.GetArray()) {
      rows.push_back({text_of(member(c, "held_path")), text_of(member(c, "file_size")),
                      time_text_of(member(c, "start_ts")), time_text_of(member(c, "end_ts")),
                      text_of(member(c, "path"))});
    }
  }
  print_table({"HELD_PATH", "SIZE", "FIRST_PACKET", "LAST_PACKET", "CATALOGUED_AS"}, rows);
}

void register_hold_add(CLI::App* hold, int& exit_code) {
  struct options : client_options {
    std::vector<std::string> paths;
    std::optional<std::string> start, end, expires;
    std::string reason;
  };
  auto o = std::make_shared<options>();
  auto* sub = hold->add_subcommand(
      "add", "Hold captures: those whose packets overlap [--start, --end] (and, while the window is recent, "
             "those that arrive in it), or the catalogued PATHs");
  add_client_options(sub, *o);
  auto* paths = sub->add_option("PATH", o->paths, "Exact catalogued path of a capture to hold");
  auto* start = sub->add_option("--start", o->start, std::string("Start of the window: ") + TIME_HELP);
  auto* end = sub->add_option("--end", o->end, "End of the window, inclusive");
  sub->add_option("--reason", o->reason, "Why the captures are kept (an incident, a case number)")->required();
  sub->add_option("--expires", o->expires, "When the hold is released by itself (RFC 3339, or +30d); default: never");
  start->needs(end);
  end->needs(start);
  paths->excludes(start)->excludes(end);
  sub->callback([o, paths, start, &exit_code] {
    exit_code = guarded([&] {
      if (paths->count() == 0 && start->count() == 0) throw failure("give --start and --end, or PATHs");
      std::optional<unsigned long> first, last, expires;
      if (o->start) {
        first = time_option("--start", *o->start);
        last = time_option("--end", *o->end);
      }
      if (o->expires) expires = time_option("--expires", *o->expires);
      const answer a = call(*o, "POST", "/v1/holds", {}, hold_body(o->paths, first, last, o->reason, expires));
      if (o->json) {
        std::cout << a.body << "\n";
        return;
      }
      const auto& made = member(a.doc, "hold");
      const auto& captures = member(made, "captures");
      std::cout << "hold " << text_of(member(made, "id")) << ": " << (captures.IsArray() ? captures.Size() : 0)
                << " capture(s), "
                << human_bytes(member(made, "bytes").IsUint64() ? member(made, "bytes").GetUint64() : 0) << "\n";
      for (const auto& r : member(a.doc, "not_held").GetArray()) {
        std::cerr << "not held: " << text_of(member(r, "path")) << ": " << text_of(member(r, "reason")) << "\n";
      }
    });
  });
}

void register_hold_ls(CLI::App* hold, int& exit_code) {
  struct options : client_options {
    std::optional<unsigned long> id;
  };
  auto o = std::make_shared<options>();
  auto* sub = hold->add_subcommand("ls", "List the holds, or the captures that hold ID keeps");
  add_client_options(sub, *o);
  sub->add_option("ID", o->id, "A hold's id");
  sub->callback([o, &exit_code] {
    exit_code = guarded([&] {
      const answer a = call(*o, "GET", "/v1/holds");
      if (o->json) {
        std::cout << a.body << "\n";
        return;
      }
      if (!o->id) {
        print_holds(a.doc);
        return;
      }
      for (const auto& h : member(a.doc, "holds").GetArray()) {
        if (member(h, "id").IsUint64() && member(h, "id").GetUint64() == *o->id) return print_captures(h);
      }
      throw failure("no hold has the id " + std::to_string(*o->id));
    });
  });
}

void register_hold_rm(CLI::App* hold, int& exit_code) {
  struct options : client_options {
    unsigned long id = 0;
  };
  auto o = std::make_shared<options>();
  auto* sub = hold->add_subcommand("rm", "Release hold ID: its captures are again subject to every cleanup");
  add_client_options(sub, *o);
  sub->add_option("ID", o->id, "The hold's id")->required();
  sub->callback([o, &exit_code] {
    exit_code = guarded([&] {
      const answer a = call(*o, "DELETE", "/v1/holds", {{"id", std::to_string(o->id)}});
      if (o->json) {
        std::cout << a.body << "\n";
      } else {
        std::cout << "released hold " << o->id << "\n";
      }
    });
  });
}

}  // namespace

void register_hold(CLI::App& app, int& exit_code) {
  auto* hold = app.add_subcommand("hold", "Evidence holds: keep captures from every cleanup until released");
  hold->require_subcommand(1);
  register_hold_add(hold, exit_code);
  register_hold_ls(hold, exit_code);
  register_hold_rm(hold, exit_code);
}

}  // namespace faitra_cli
