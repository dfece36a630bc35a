// The central catalogue's costs, against a PostgreSQL server that
// bench/run.py starts. Each mode prints one JSON object.
//
//   fleet_bench CONNINFO PASSWORD-FILE sync N
//     The full resync of a catalogue of N records (built in memory) into
//     empty tables, then again with nothing changed; the floor is a plain
//     COPY of the same rows into a table with the same indexes.
//   fleet_bench CONNINFO PASSWORD-FILE lag RATE SECONDS
//     A daemon on a directory under $TMPDIR exporting its catalogue while
//     captures are written at RATE per second; each capture's lag runs from
//     its final close to the commit that gives its row its attributes, as
//     seen by a LISTEN on a trigger's notification.
//   fleet_bench CONNINFO PASSWORD-FILE ls SENSORS ROWS
//     `fleet ls` for one-minute windows over SENSORS x ROWS captures of 10 s
//     each, against the same query without the longest-capture bound.
#include "bench_support.hpp"

#include <faitra/host/catalogue_schema.hpp>
#include <faitra/host/catalogue_sync.hpp>
#include <faitra/host/daemon.hpp>
#include <faitra/host/fleet_query.hpp>

#include <libpq-fe.h>
#include <poll.h>

#include <atomic>
#include <iostream>
#include <map>
#include <random>
#include <thread>

namespace {

using faitra_bench::now_ns;
using namespace faitra_host;

constexpr uint64_t BASE_NS = 1700000000000000000ULL;
constexpr uint64_t CAPTURE_NS = 10000000000ULL;

struct server {
  std::string conninfo;
  std::string password_file;
  std::unique_ptr<pg_connection> connect() const { return std::make_unique<pg_connection>(conninfo, password_file); }
};

void fresh_tables(pg_connection& db) {
  db.exec("DROP TABLE IF EXISTS faitra_captures, faitra_sensors, faitra_schema, faitra_copy_floor");
  ensure_schema(db);
}

double seconds_since(uint64_t start) { return static_cast<double>(now_ns() - start) / 1e9; }

std::string json_numbers(const std::vector<double>& values) {
  std::string out = "[";
  for (size_t i = 0; i < values.size(); ++i) out += (i ? "," : "") + std::to_string(values[i]);
  return out + "]";
}

int sync(const server& s, unsigned long n) {
  auto catalogue = std::make_shared<csl::fs_cache>();
  for (unsigned long i = 0; i < n; ++i) {
    char path[64];
    std::snprintf(path, sizeof path, "/srv/pcap/capture-%020lu.pcap", i);
    auto e = std::make_shared<csl::fs_entry>(path);
    e->key = faitra_bench::hash_of(i).substr(0, 32);
    e->start_ts = BASE_NS + i * CAPTURE_NS;
    e->end_ts = BASE_NS + i * CAPTURE_NS + CAPTURE_NS - 1;
    e->creation_ts = (BASE_NS + i * CAPTURE_NS) / 1000000000ULL;
    e->file_size = 1 << 20;
    catalogue->insert(std::move(e));
  }
  auto db = s.connect();
  fresh_tables(*db);
  const sensor_identity who{"bench", "/srv/pcap", ""};
  const auto never = [] { return false; };

  // The floor: the same rows as COPY text into a copy of the table.
  std::string text;
  for (const auto& e : catalogue->path_cache()) {
    text += "bench\t/srv/pcap\t" + e->path + "\t" + *e->key + "\t" + std::to_string(e->creation_ts) + "\t" +
            std::to_string(*e->start_ts) + "\t" + std::to_string(*e->end_ts) + "\t" + std::to_string(e->file_size) +
            "\n";
  }
  db->exec("CREATE TABLE faitra_copy_floor (LIKE faitra_captures INCLUDING ALL)");
  uint64_t begun = now_ns();
  in_transaction(*db, [&] {
    return db->copy_in("COPY faitra_copy_floor (sensor, root, path, key, creation_ts, start_ts, end_ts, file_size) "
                       "FROM STDIN",
                       text);
  });
  const double floor_s = seconds_since(begun);
  db->exec("DROP TABLE faitra_copy_floor");
  text.clear();
  text.shrink_to_fit();

  begun = now_ns();
  const sync_summary first = resync_sensor(*db, who, *catalogue, never);
  const double initial_s = seconds_since(begun);
  begun = now_ns();
  const sync_summary again = resync_sensor(*db, who, *catalogue, never);
  const double unchanged_s = seconds_since(begun);
  faitra_bench::check(first.inserted == n && again.inserted + again.updated + again.deleted == 0, "resync counts");
  std::printf("{\"rows\": %lu, \"copy_floor_s\": %.3f, \"initial_s\": %.3f, \"unchanged_s\": %.3f, "
              "\"initial_rows_per_s\": %.0f, \"unchanged_rows_per_s\": %.0f}\n",
              n, floor_s, initial_s, unchanged_s, static_cast<double>(n) / initial_s,
              static_cast<double>(n) / unchanged_s);
  return 0;
}

// Receives the trigger's notifications: the path of each row written with
// its attributes, stamped on arrival.
class row_listener {
 public:
  explicit row_listener(const server& s) {
    const std::string password = read_password_file(s.password_file);
    const char* keys[] = {"dbname", "password", nullptr};
    const char* values[] = {s.conninfo.c_str(), password.c_str(), nullptr};
    _conn = PQconnectdbParams(keys, values, 1);
    faitra_bench::check(PQstatus(_conn) == CONNECTION_OK, "listener connection");
    PQclear(PQexec(_conn, "LISTEN faitra_bench"));
    _thread = std::thread([this] { run(); });
  }
  ~row_listener() {
    _stop = true;
    _thread.join();
    PQfinish(_conn);
  }
  std::map<std::string, uint64_t> arrivals() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _arrivals;
  }

 private:
  void run() {
    while (!_stop) {
      pollfd p{PQsocket(_conn), POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      PQconsumeInput(_conn);
      while (PGnotify* n = PQnotifies(_conn)) {
        const uint64_t now = now_ns();
        {
          std::lock_guard<std::mutex> lock(_mutex);
          _arrivals.emplace(n->extra, now);
        }
        PQfreemem(n);
      }
    }
  }

  PGconn* _conn = nullptr;
  std::atomic<bool> _stop{false};
  std::mutex _mutex;
  std::map<std::string, uint64_t> _arrivals;
  std::thread _thread;
};

int lag(const server& s, unsigned long rate, unsigned long seconds) {
  {
    auto db = s.connect();
    fresh_tables(*db);
    db->exec(R"sql(
      CREATE OR REPLACE FUNCTION faitra_bench_notify() RETURNS trigger LANGUAGE plpgsql AS $$
      BEGIN
        IF NEW.key IS NOT NULL THEN PERFORM pg_notify('faitra_bench', NEW.path); END IF;
        RETURN NULL;
      END $$;
      CREATE TRIGGER faitra_bench_notify AFTER INSERT OR UPDATE ON faitra_captures
        FOR EACH ROW EXECUTE FUNCTION faitra_bench_notify();)sql");
  }
  faitra_bench::scratch_dir dir("faitra-bench-fleet");
  daemon_options o;
  o.root = dir.path();
  o.auto_cleanup = false;
  o.log_stdout = true;
  o.log_level = cdl::log_priority::warning;
  o.reconcile_interval = std::chrono::seconds(0);
  export_options to;
  to.conninfo = s.conninfo;
  to.password_file = s.password_file;
  to.who.sensor = "bench";
  o.export_to = to;
  capture_daemon daemon(o);
  while (daemon.exporter()->status().resyncs == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  row_listener listener(s);

  const unsigned long count = rate * seconds;
  std::map<std::string, uint64_t> closed;
  const uint64_t begun = now_ns();
  for (unsigned long i = 0; i < count; ++i) {
    const uint64_t due = begun + i * 1000000000ULL / rate;
    while (now_ns() < due) std::this_thread::sleep_for(std::chrono::microseconds(100));
    const std::string path = dir.path() + "/capture-" + std::to_string(i) + ".pcap";
    faitra_bench::write_capture(path, 1024, BASE_NS + i * CAPTURE_NS, faitra_bench::hash_of(i));
    closed.emplace(path, now_ns());
  }
  const double achieved = static_cast<double>(count) / seconds_since(begun);
  const uint64_t deadline = now_ns() + 10000000000ULL;
  while (listener.arrivals().size() < count && now_ns() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto arrivals = listener.arrivals();
  std::vector<double> lags_ms;
  for (const auto& [path, at] : closed) {
    const auto found = arrivals.find(path);
    if (found == arrivals.end()) continue;
    // A row can arrive before the writer stamped its close (descheduled in between): 0.
    lags_ms.push_back(found->second > at ? static_cast<double>(found->second - at) / 1e6 : 0.0);
  }
  const export_status st = daemon.exporter()->status();
  std::printf("{\"captures\": %lu, \"achieved_rate\": %.1f, \"missed\": %lu, \"p50_ms\": %.2f, \"p99_ms\": %.2f, "
              "\"max_ms\": %.2f, \"batches\": %lu, \"failures\": %lu}\n",
              count, achieved, count - lags_ms.size(), faitra_bench::quantile(lags_ms, 0.5),
              faitra_bench::quantile(lags_ms, 0.99), faitra_bench::quantile(lags_ms, 1.0), st.batches, st.failures);
  return 0;
}

int ls(const server& s, unsigned long sensors, unsigned long rows) {
  auto db = s.connect();
  fresh_tables(*db);
  const std::string n = std::to_string(rows), base = std::to_string(BASE_NS), step = std::to_string(CAPTURE_NS);
  uint64_t begun = now_ns();
  db->exec("INSERT INTO faitra_captures (sensor, root, path, key, creation_ts, start_ts, end_ts, file_size) "
           "SELECT 'sensor-' || s, '/srv/pcap', '/srv/pcap/capture-' || lpad(i::text, 20, '0') || '.pcap', "
           "md5(i::text), (" + base + " + i * " + step + ") / 1000000000, " + base + " + i * " + step +
           " + s * 1000000, " + base + " + (i + 1) * " + step + " - 1, 1048576 "
           "FROM generate_series(1, " + std::to_string(sensors) + ") s, generate_series(0, " + n + " - 1) i");
  db->exec("INSERT INTO faitra_sensors (sensor, root, longest_capture_ns) SELECT DISTINCT sensor, root, " + step +
           " FROM faitra_captures");
  db->exec("VACUUM ANALYZE faitra_captures");
  db->exec("VACUUM ANALYZE faitra_sensors");
  const double fill_s = seconds_since(begun);

  std::mt19937_64 random(42);
  const uint64_t span = rows * CAPTURE_NS - 60000000000ULL;
  const auto window = [&] { return BASE_NS + random() % span; };
  const uint64_t minute = 60000000000ULL;
  std::vector<double> ls_ms, naive_ms;
  size_t listed = 0;
  for (int i = 0; i < 200; ++i) {
    const uint64_t start = window();
    begun = now_ns();
    listed += captures_overlapping(*db, start, start + minute, {}).size();
    ls_ms.push_back(seconds_since(begun) * 1e3);
  }
  for (int i = 0; i < 5; ++i) {
    const uint64_t start = window();
    begun = now_ns();
    const sql_result r = db->exec(
        "SELECT sensor, path FROM faitra_captures WHERE start_ts <= $2::bigint AND end_ts >= $1::bigint "
        "ORDER BY start_ts, sensor, path",
        {std::to_string(start), std::to_string(start + minute)});
    naive_ms.push_back(seconds_since(begun) * 1e3);
  }
  const uint64_t start = window();
  const overlap_statement statement = overlapping_statement(*db, start, start + minute, {});
  const sql_result plan = db->exec("EXPLAIN (ANALYZE, BUFFERS, COSTS OFF) " + statement.sql, statement.params);
  std::string plan_text;
  for (int r = 0; r < plan.rows(); ++r) plan_text += plan.text(r, 0) + "\n";
  const sql_result size = db->exec("SELECT pg_total_relation_size('faitra_captures')");
  std::cout << "{\"sensors\": " << sensors << ", \"rows_per_sensor\": " << rows << ", \"fill_s\": " << fill_s
            << ", \"table_bytes\": " << size.text(0, 0) << ", \"listed_per_window\": "
            << static_cast<double>(listed) / static_cast<double>(ls_ms.size()) << ", \"ls_ms\": "
            << json_numbers(ls_ms) << ", \"naive_ms\": " << json_numbers(naive_ms) << ", \"plan\": \"";
  for (const char c : plan_text) {
    if (c == '\n') std::cout << "\\n";
    else if (c == '"' || c == '\\') std::cout << '\\' << c;
    else std::cout << c;
  }
  std::cout << "\"}\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: fleet_bench CONNINFO PASSWORD-FILE sync N | lag RATE SECONDS | ls SENSORS ROWS\n");
    return 2;
  }
  const server s{argv[1], argv[2]};
  const std::string mode = argv[3];
  try {
    if (mode == "sync") return sync(s, std::stoul(argv[4]));
    if (mode == "lag" && argc >= 6) return lag(s, std::stoul(argv[4]), std::stoul(argv[5]));
    if (mode == "ls" && argc >= 6) return ls(s, std::stoul(argv[4]), std::stoul(argv[5]));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "fleet_bench: %s\n", e.what());
    return 1;
  }
  std::fprintf(stderr, "fleet_bench: unknown mode %s\n", mode.c_str());
  return 2;
}
