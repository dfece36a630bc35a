#include "fleet/fleet_options.hpp"

#include <faitra/host/fleet_query.hpp>
#include <faitra/host/time_text.hpp>

#include <iostream>

namespace faitra_cli {

using namespace faitra_host;

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
             std::string error;
             const auto ns = parse_time_ns(text, wall_clock_ns(), error);
             if (!ns) throw CLI::ValidationError(name, error);
             value = *ns;
           },
           help)
        ->required()
        ->type_name("TIME");
  };
  time_option("--start", o.start,
              "Start of the window: ns since the epoch, RFC 3339 (2026-11-23T10:02:00Z) or relative (-5m)");
  time_option("--end", o.end, "End of the window, inclusive, in the same forms");
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
