#include "fleet/fleet_options.hpp"

#include <faitra/host/fleet_query.hpp>

#include <iostream>

namespace faitra_cli {

using namespace faitra_host;

namespace {

// A time: nanoseconds since the epoch.
std::string parse_time(const std::string& text, uint64_t& out) {
  if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos) {
    return "not a time in nanoseconds since the epoch: " + text;
  }
  out = std::stoull(text);
  return "";
}

}  // namespace

void add_fleet_options(CLI::App* sub, fleet_options& o) {
  sub->add_option("--db", o.db,
                  "The central database: postgresql://HOST[:PORT]/DB or key=value words, without a password")
      ->required();
  sub->add_option("--db-password-file", o.db_password_file,
                  "File (mode 600) whose first line is the database password; without it, libpq's own password "
                  "file (PGPASSFILE, ~/.pgpass) is used")
      ->check(CLI::ExistingFile);
  const auto time_option = [sub](const char* name, uint64_t& value, const char* help) {
    sub->add_option_function<std::string>(
           name,
           [&value, name](const std::string& text) {
             const std::string error = parse_time(text, value);
             if (!error.empty()) throw CLI::ValidationError(name, error);
           },
           help)
        ->required()
        ->type_name("TIME");
  };
  time_option("--start", o.start, "Start of the window (first packet time, ns since the epoch)");
  time_option("--end", o.end, "End of the window, inclusive (ns since the epoch)");
  sub->add_option("--sensor", o.sensors, "Only this sensor; repeat for several (default: every sensor)")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

std::unique_ptr<pg_connection> connect_fleet_db(const fleet_options& o) {
  if (o.end < o.start) throw std::invalid_argument("--end is before --start");
  auto db = std::make_unique<pg_connection>(o.db, o.db_password_file, "faitra fleet");
  check_catalogue(*db);
  return db;
}

int fleet_guarded(const std::function<int()>& body) {
  try {
    return body();
  } catch (const std::exception& e) {
    std::cerr << "faitra fleet: " << e.what() << "\n";
    return 1;
  }
}

}  // namespace faitra_cli
