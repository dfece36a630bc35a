// The central catalogue's tables in PostgreSQL, shared by the export (which
// writes them) and the fleet commands (which read them).
//
//   faitra_schema    (component, version): the version of these tables.
//   faitra_captures  one row per capture per sensor: sensor, root, path,
//                    key, creation_ts (s), start_ts and end_ts (first and
//                    last packet, ns), file_size, seen (when this version of
//                    the row was written). Primary key (sensor, path).
//   faitra_sensors   one row per sensor: its root, the URL of its API
//                    (when published), a token (set by the operator, never
//                    by the export), the longest capture it holds
//                    (longest_capture_ns, a bound on end_ts - start_ts that
//                    lets a time-window query use the (sensor, start_ts)
//                    index), its last resync and last write.
//
// The sensor is the distribution column: every key and index starts with
// it, and every statement names one sensor or joins the two tables on it,
// so that a distributed PostgreSQL can keep each sensor's rows together.
// Paths sort in byte order (COLLATE "C"), the catalogue's own order.
//
// ensure_schema() creates whatever is missing under an advisory lock (two
// sensors starting together do not race) and raises pg_error when the
// database holds a version this program does not know.
#pragma once

#include <faitra/host/pg_connection.hpp>

namespace faitra_host {

constexpr int CATALOGUE_SCHEMA_VERSION = 1;

void ensure_schema(pg_connection& db);

}  // namespace faitra_host
