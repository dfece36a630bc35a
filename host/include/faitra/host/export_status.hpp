// What the catalogue export reports about itself (catalogue_export.hpp), in
// /v1/status and /metrics.
//
// Thread-safety: plain values, copied out under the export's lock.
#pragma once

#include <string>

namespace faitra_host {

// What one resync did.
struct sync_summary {
  unsigned long catalogued = 0;  // records walked in the catalogue
  unsigned long inserted = 0;
  unsigned long updated = 0;
  unsigned long deleted = 0;
};

struct export_status {
  std::string sensor;
  bool connected = false;
  std::string server;                 // host:port/database of the last connection
  unsigned long queue_depth = 0;
  unsigned long queue_capacity = 0;
  bool resync_needed = false;         // asked for and not yet begun
  double lag_seconds = 0;             // age of the oldest change not yet in the table
  double last_batch_lag_seconds = 0;  // of the last batch: its oldest change to its commit
  long last_resync = 0;               // Unix time of the last completed resync; 0: none yet
  double last_resync_seconds = 0;     // how long it took
  sync_summary last_resync_summary;
  unsigned long resyncs = 0;
  unsigned long batches = 0;
  unsigned long rows_upserted = 0;    // rows sent by batches (present in the catalogue)
  unsigned long rows_deleted = 0;     // paths sent by batches as gone
  unsigned long failures = 0;         // failed connections, resyncs and batches
  unsigned long overflows = 0;        // times the queue overflowed into a resync
  std::string last_error;
};

}  // namespace faitra_host
