// What the fleet subcommands share: the database and window options, the
// connection, and the mapping of failures to exit statuses.
#pragma once

#include <faitra/host/pg_connection.hpp>

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace faitra_cli {

// The exit status of an extraction that lacks some sensors' packets.
constexpr int EXIT_PARTIAL = 3;

struct fleet_options {
  std::string db;
  std::string db_password_file;
  uint64_t start = 0;
  uint64_t end = 0;
  std::vector<std::string> sensors;
};

// --db, --db-password-file, --start, --end, --sensor.
void add_fleet_options(CLI::App* sub, fleet_options& o);

// Connects and checks that the database holds a catalogue.
std::unique_ptr<faitra_host::pg_connection> connect_fleet_db(const fleet_options& o);

// Runs `body` and returns its exit status; a failure prints its reason and
// gives 1.
int fleet_guarded(const std::function<int()>& body);

void register_fleet_extract(CLI::App& fleet, int& exit_code);


}  // namespace faitra_cli
