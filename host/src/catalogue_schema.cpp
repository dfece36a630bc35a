#include <faitra/host/catalogue_schema.hpp>

#include <string>

namespace faitra_host {

namespace {

// Any fixed number: the lock that serialises schema creation.
constexpr const char* SCHEMA_LOCK = "4661697472610001";

const char* const SCHEMA = R"sql(
CREATE TABLE IF NOT EXISTS faitra_schema (
  component text PRIMARY KEY,
  version integer NOT NULL);
CREATE TABLE IF NOT EXISTS faitra_captures (
  sensor text COLLATE "C" NOT NULL,
  root text NOT NULL,
  path text COLLATE "C" NOT NULL,
  key text,
  creation_ts bigint NOT NULL,
  start_ts bigint,
  end_ts bigint,
  file_size bigint NOT NULL,
  seen timestamptz NOT NULL DEFAULT now(),
  PRIMARY KEY (sensor, path));
CREATE INDEX IF NOT EXISTS faitra_captures_sensor_start ON faitra_captures (sensor, start_ts);
CREATE TABLE IF NOT EXISTS faitra_sensors (
  sensor text COLLATE "C" PRIMARY KEY,
  root text,
  url text,
  token text,
  longest_capture_ns bigint NOT NULL DEFAULT 0,
  last_resync timestamptz,
  updated timestamptz);
)sql";

}  // namespace

void ensure_schema(pg_connection& db) {
  in_transaction(db, [&db] {
    db.exec(std::string("SELECT pg_advisory_xact_lock(") + SCHEMA_LOCK + ")");
    db.exec(SCHEMA);
    db.exec("INSERT INTO faitra_schema (component, version) VALUES ('catalogue', $1) ON CONFLICT DO NOTHING",
            {std::to_string(CATALOGUE_SCHEMA_VERSION)});
    const sql_result version = db.exec("SELECT version FROM faitra_schema WHERE component = 'catalogue'");
    if (version.rows() != 1 || version.number(0, 0) != CATALOGUE_SCHEMA_VERSION) {
      throw pg_error("the database holds catalogue tables of version " +
                     (version.rows() == 1 ? version.text(0, 0) : std::string("?")) + "; this program knows " +
                     std::to_string(CATALOGUE_SCHEMA_VERSION));
    }
    return 0;
  });
}

}  // namespace faitra_host
