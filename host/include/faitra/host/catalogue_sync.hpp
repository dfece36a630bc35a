// Writing one sensor's catalogue into the central tables
// (catalogue_schema.hpp): the full resync and the batches of live changes.
// The export (catalogue_export.hpp) decides when; this file knows how.
//
// resync_sensor() runs in one transaction. It walks the sensor's rows
// (a cursor, in path order) and the catalogue (in path order, a chunk at a
// time under the catalogue's shared lock, so the tracker is never held up
// for long) side by side, and sends only the differences: rows the table
// lacks go in by COPY, rows that differ are updated, rows whose capture is
// gone are deleted. One COPY stays open until another statement must run,
// fed in pieces, so the server stores rows while the next ones are made.
// A resync of an unchanged catalogue writes nothing but the sensor's row.
// The catalogue may change while it is walked; the caller
// sends those changes afterwards as live changes (they are noted from
// before the walk begins), so the table converges.
//
// apply_changes() writes one batch in one transaction and one round trip:
// the records present in the catalogue are upserted (a row is rewritten only when it differs),
// the paths no longer catalogued are deleted.
//
// Numbers above the largest bigint are stored as that largest value.
//
// Thread-safety: functions of the calling thread's connection; the
// catalogue is read under its own lock.
#pragma once

#include <faitra/host/export_status.hpp>
#include <faitra/host/pg_connection.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>

#include <functional>
#include <string>
#include <vector>

namespace faitra_host {

struct sensor_identity {
  std::string sensor;
  std::string root;
  std::string url;  // empty: not published
};


// Upserts the sensor's own row (root, URL); part of the caller's
// transaction when one is open.
void register_sensor(pg_connection& db, const sensor_identity& who);

// `stopping` is polled between chunks; when it returns true the
// transaction is rolled back and pg_error raised.
sync_summary resync_sensor(pg_connection& db, const sensor_identity& who, const csl::fs_cache& catalogue,
                           const std::function<bool()>& stopping);

void apply_changes(pg_connection& db, const sensor_identity& who, const std::vector<csl::fs_entry>& present,
                   const std::vector<std::string>& gone);

}  // namespace faitra_host
