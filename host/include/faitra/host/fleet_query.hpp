// Questions to the central catalogue (catalogue_schema.hpp) about a fleet
// of sensors: which captures overlap a time window, and how each sensor's
// API is reached.
//
// A capture overlaps the closed window [start, end] when its first packet is
// at or before `end` and its last at or after `start`; captures without
// packet times are never listed. The statement reads each sensor's
// (sensor, start_ts) index from `start` minus that sensor's longest capture
// (faitra_sensors.longest_capture_ns) to `end`: one branch per sensor, each
// confined to one sensor, so its cost follows the captures near the window,
// not the table's size, and a distributed PostgreSQL sends each branch to
// the one node that holds the sensor.
//
// Sensor endpoints come from the faitra_sensors table (url and token
// columns) or from a file of lines "NAME URL [TOKEN-FILE]" ('#' starts a
// comment); a file's entries take precedence.
//
// Thread-safety: functions of the caller's connection.
#pragma once

#include <faitra/host/pg_connection.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace faitra_host {

struct fleet_capture {
  std::string sensor;
  std::string root;
  std::string path;
  std::optional<std::string> key;
  uint64_t creation_ts = 0;
  uint64_t start_ts = 0;
  uint64_t end_ts = 0;
  uint64_t file_size = 0;
  std::string seen;  // RFC 3339, UTC
};

struct sensor_endpoint {
  std::string url;    // empty: unknown
  std::string token;  // empty: none
};

// Raises pg_error (with a readable reason when no sensor has exported to
// this database yet).
void check_catalogue(pg_connection& db);

// The statement behind captures_overlapping(): one branch per sensor, each
// a range on that sensor's (sensor, start_ts) index from the window's start
// minus the sensor's longest capture; empty when no sensor is known.
struct overlap_statement {
  std::string sql;
  std::vector<pg_param> params;
};
overlap_statement overlapping_statement(pg_connection& db, uint64_t start, uint64_t end,
                                        const std::vector<std::string>& sensors);

// In time order (start, then sensor, then path). An empty `sensors` means
// every sensor.
std::vector<fleet_capture> captures_overlapping(pg_connection& db, uint64_t start, uint64_t end,
                                                const std::vector<std::string>& sensors);

std::map<std::string, sensor_endpoint> sensors_from_table(pg_connection& db);
// Raises std::runtime_error for an unreadable file, a malformed line or an
// unreadable token file.
std::map<std::string, sensor_endpoint> sensors_from_file(const std::string& path);

}  // namespace faitra_host
