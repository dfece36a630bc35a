// faitra fleet: questions to the central catalogue that sensors export to
// (`faitra serve --export-postgres`). `fleet ls` answers from the database
// alone; `fleet extract` (fleet_extract.cpp) fetches the packets from the
// sensors that hold the window.
//
// Exit status: 0 on success, 1 when the database cannot be asked, 3 when
// an extraction is partial (some sensors did not answer).
#include "commands.hpp"
#include "fleet/fleet_options.hpp"
#include "table.hpp"
#include <faitra/host/fleet_query.hpp>

#include <cdl/json_values.hpp>
#include <cdl/json_writer.hpp>

#include <iostream>

namespace faitra_cli {

using namespace faitra_host;

namespace {

void print_json(const std::vector<fleet_capture>& captures) {
  cdl::json_writer w;
  w.begin_object();
  w.key("captures", true);
  w.begin_array();
  for (const fleet_capture& c : captures) {
    w.begin_object();
    w.key("sensor", true);
    w.value<std::string>(c.sensor);
    w.key("root", true);
    w.value<std::string>(c.root);
    w.key("path", true);
    w.value<std::string>(c.path);
    w.key("key", true);
    if (c.key) {
      w.value<std::string>(*c.key);
    } else {
      w.null_value();
    }
    for (const auto& [name, value] : {std::pair<const char*, uint64_t>{"creation_ts", c.creation_ts},
                                      {"start_ts", c.start_ts},
                                      {"end_ts", c.end_ts},
                                      {"file_size", c.file_size}}) {
      w.key(name, true);
      w.value<unsigned long>(value);
    }
    w.key("seen", true);
    w.value<std::string>(c.seen);
    w.end_object();
  }
  w.end_array();
  w.end_object();
  std::cout << w.take() << "\n";
}

void print_rows(const std::vector<fleet_capture>& captures) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(captures.size());
  for (const fleet_capture& c : captures) {
    rows.push_back({c.sensor, std::to_string(c.start_ts), std::to_string(c.end_ts), std::to_string(c.file_size),
                    c.path});
  }
  print_table({"SENSOR", "START_TS", "END_TS", "SIZE", "PATH"}, rows);
}

void register_ls(CLI::App& fleet, int& exit_code) {
  struct options : fleet_options {
    bool json = false;
  };
  auto o = std::make_shared<options>();
  auto* sub = fleet.add_subcommand(
      "ls", "List the captures of every sensor (or of --sensor ones) that overlap [--start, --end], in time order, "
            "from the central database alone");
  add_fleet_options(sub, *o);
  sub->add_flag("--json", o->json, "Print JSON: {\"captures\": [{sensor, root, path, key, ...}]}");
  sub->callback([o, &exit_code] {
    exit_code = fleet_guarded([&] {
      auto db = connect_fleet_db(*o);
      const auto captures = captures_overlapping(*db, o->start, o->end, o->sensors);
      if (o->json) {
        print_json(captures);
      } else {
        print_rows(captures);
      }
      return 0;
    });
  });
}

}  // namespace

void register_fleet(CLI::App& app, int& exit_code) {
  auto* fleet = app.add_subcommand(
      "fleet", "Ask the central catalogue that sensors export to (faitra serve --export-postgres): which sensor "
               "holds which captures, and the packets of a time window from all of them");
  fleet->require_subcommand(1);
  register_ls(*fleet, exit_code);
  register_fleet_extract(*fleet, exit_code);
}

}  // namespace faitra_cli
