#include <faitra/host/fleet_query.hpp>

#include <faitra/host/catalogue_schema.hpp>
#include <faitra/host/daemon_address.hpp>

#include <algorithm>
#include <fstream>
#include <limits>
#include <sstream>

namespace faitra_host {

namespace {

std::string bigint_text(uint64_t value) {
  return std::to_string(std::min<uint64_t>(value, std::numeric_limits<int64_t>::max()));
}

}  // namespace

void check_catalogue(pg_connection& db) {
  const sql_result found = db.exec(
      "SELECT to_regclass('faitra_schema') IS NOT NULL AND to_regclass('faitra_captures') IS NOT NULL "
      "AND to_regclass('faitra_sensors') IS NOT NULL");
  if (found.text(0, 0) != "t") throw pg_error("this database holds no catalogue yet: no sensor has exported to it");
  const sql_result version = db.exec("SELECT version FROM faitra_schema WHERE component = 'catalogue'");
  if (version.rows() != 1 || version.number(0, 0) != CATALOGUE_SCHEMA_VERSION) {
    throw pg_error("the database holds catalogue tables of another version than " +
                   std::to_string(CATALOGUE_SCHEMA_VERSION));
  }
}

overlap_statement overlapping_statement(pg_connection& db, uint64_t start, uint64_t end,
                                        const std::vector<std::string>& sensors) {
  std::vector<pg_param> names(sensors.begin(), sensors.end());
  const sql_result bounds = db.exec(
      "SELECT sensor, longest_capture_ns FROM faitra_sensors WHERE $1::text[] IS NULL OR sensor = ANY($1::text[]) "
      "ORDER BY sensor",
      {sensors.empty() ? pg_param() : array_literal(names)});
  overlap_statement out;
  out.params = {bigint_text(start), bigint_text(end)};
  for (int r = 0; r < bounds.rows(); ++r) {
    const uint64_t longest = static_cast<uint64_t>(std::max(0LL, bounds.number(r, 1)));
    // Appended, not "$" + text: GCC 12's -Wrestrict misfires on that at -O3.
    std::string sensor = "$", lowest = "$";
    sensor += std::to_string(out.params.size() + 1);
    lowest += std::to_string(out.params.size() + 2);
    out.params.push_back(bounds.text(r, 0));
    out.params.push_back(bigint_text(start - std::min(longest, start)));
    if (!out.sql.empty()) out.sql += "UNION ALL\n";
    out.sql += "(SELECT sensor, root, path, key, creation_ts, start_ts, end_ts, file_size, "
               "to_char(seen AT TIME ZONE 'UTC', 'YYYY-MM-DD\"T\"HH24:MI:SS.US\"Z\"') AS seen "
               "FROM faitra_captures WHERE sensor = " + sensor + " AND start_ts >= " + lowest +
               "::bigint AND start_ts <= $2::bigint AND end_ts >= $1::bigint)\n";
  }
  if (!out.sql.empty()) out.sql += "ORDER BY start_ts, sensor, path";
  return out;
}

std::vector<fleet_capture> captures_overlapping(pg_connection& db, uint64_t start, uint64_t end,
                                                const std::vector<std::string>& sensors) {
  const overlap_statement statement = overlapping_statement(db, start, end, sensors);
  if (statement.sql.empty()) return {};
  const sql_result rows = db.exec(statement.sql, statement.params);
  std::vector<fleet_capture> out(static_cast<size_t>(rows.rows()));
  for (int r = 0; r < rows.rows(); ++r) {
    fleet_capture& c = out[static_cast<size_t>(r)];
    c.sensor = rows.text(r, 0);
    c.root = rows.text(r, 1);
    c.path = rows.text(r, 2);
    if (!rows.is_null(r, 3)) c.key = rows.text(r, 3);
    c.creation_ts = static_cast<uint64_t>(rows.number(r, 4));
    c.start_ts = static_cast<uint64_t>(rows.number(r, 5));
    c.end_ts = static_cast<uint64_t>(rows.number(r, 6));
    c.file_size = static_cast<uint64_t>(rows.number(r, 7));
    c.seen = rows.text(r, 8);
  }
  return out;
}

std::map<std::string, sensor_endpoint> sensors_from_table(pg_connection& db) {
  std::map<std::string, sensor_endpoint> out;
  const sql_result rows = db.exec("SELECT sensor, url, token FROM faitra_sensors");
  for (int r = 0; r < rows.rows(); ++r) {
    sensor_endpoint& e = out[rows.text(r, 0)];
    if (!rows.is_null(r, 1)) e.url = rows.text(r, 1);
    if (!rows.is_null(r, 2)) e.token = rows.text(r, 2);
  }
  return out;
}

std::map<std::string, sensor_endpoint> sensors_from_file(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::map<std::string, sensor_endpoint> out;
  unsigned number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    std::string name, url, token_file, extra;
    if (!(words >> name)) continue;
    if (!(words >> url) || (words >> token_file && words >> extra)) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": expected NAME URL [TOKEN-FILE]");
    }
    sensor_endpoint& e = out[name];
    e.url = url;
    if (!token_file.empty()) {
      std::string error;
      const auto token = read_token_file(token_file, error);
      if (!token) throw std::runtime_error(path + ":" + std::to_string(number) + ": " + error);
      e.token = *token;
    }
  }
  return out;
}

}  // namespace faitra_host
