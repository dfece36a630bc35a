#include <faitra/host/catalogue_sync.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace faitra_host {

namespace {

constexpr size_t CATALOGUE_CHUNK = 10000;
constexpr size_t FETCH_ROWS = 10000;
constexpr size_t STATEMENT_ROWS = 5000;
// New rows go out in pieces of this size through one COPY, kept open until
// another statement must run: the server takes each piece in while the next
// one is made.
constexpr size_t COPY_PIECE_BYTES = 256 << 10;

constexpr unsigned long BIGINT_MAX = static_cast<unsigned long>(std::numeric_limits<int64_t>::max());

const char* const UPSERT = R"sql(
INSERT INTO faitra_captures AS c (sensor, root, path, key, creation_ts, start_ts, end_ts, file_size)
SELECT $1, $2, u.path, u.key, u.creation_ts, u.start_ts, u.end_ts, u.file_size
FROM unnest($3::text[], $4::text[], $5::bigint[], $6::bigint[], $7::bigint[], $8::bigint[])
  AS u(path, key, creation_ts, start_ts, end_ts, file_size)
ON CONFLICT (sensor, path) DO UPDATE SET
  root = excluded.root, key = excluded.key, creation_ts = excluded.creation_ts, start_ts = excluded.start_ts,
  end_ts = excluded.end_ts, file_size = excluded.file_size, seen = now()
WHERE (c.root, c.key, c.creation_ts, c.start_ts, c.end_ts, c.file_size) IS DISTINCT FROM
      (excluded.root, excluded.key, excluded.creation_ts, excluded.start_ts, excluded.end_ts, excluded.file_size)
)sql";

const char* const DELETE_PATHS = "DELETE FROM faitra_captures WHERE sensor = $1 AND path = ANY($2::text[])";

const char* const COPY_ROWS =
    "COPY faitra_captures (sensor, root, path, key, creation_ts, start_ts, end_ts, file_size) FROM STDIN";

const char* const OPEN_ROWS =
    "DECLARE faitra_rows NO SCROLL CURSOR FOR SELECT path, root, key, creation_ts, start_ts, end_ts, file_size "
    "FROM faitra_captures WHERE sensor = $1 ORDER BY path";

std::string number_text(unsigned long value) { return std::to_string(std::min(value, BIGINT_MAX)); }

pg_param nullable_number(const cdl::nullable<unsigned long>& value) {
  if (value.is_null()) return std::nullopt;
  return number_text(*value);
}

// The fields of a row after sensor and path, as the table holds them.
struct row_fields {
  explicit row_fields(const csl::fs_entry& e, const std::string& root)
      : root(root),
        key(e.key.is_null() ? pg_param() : pg_param(*e.key)),
        creation(number_text(e.creation_ts)),
        start(nullable_number(e.start_ts)),
        end(nullable_number(e.end_ts)),
        size(number_text(e.file_size)) {}

  // Whether row `r` of a cursor fetch (path, root, key, creation_ts,
  // start_ts, end_ts, file_size) says the same.
  bool same_as(const sql_result& rows, int r) const {
    const auto same = [&](int field, const pg_param& mine) {
      return rows.is_null(r, field) ? !mine : mine && rows.text(r, field) == *mine;
    };
    return rows.text(r, 1) == root && same(2, key) && rows.text(r, 3) == creation && same(4, start) &&
           same(5, end) && rows.text(r, 6) == size;
  }

  std::string root;
  pg_param key;
  std::string creation;
  pg_param start;
  pg_param end;
  std::string size;
};

unsigned long span_of(const csl::fs_entry& e) {
  if (e.start_ts.is_null() || e.end_ts.is_null() || *e.end_ts <= *e.start_ts) return 0;
  return std::min(*e.end_ts - *e.start_ts, BIGINT_MAX);
}

class upsert_batch {
 public:
  void add(const csl::fs_entry& e, const row_fields& f) {
    _path.emplace_back(e.path);
    _key.push_back(f.key);
    _creation.emplace_back(f.creation);
    _start.push_back(f.start);
    _end.push_back(f.end);
    _size.emplace_back(f.size);
  }
  size_t size() const { return _path.size(); }
  // The statement that writes the rows added so far; empties the batch.
  pg_connection::statement take(const sensor_identity& who) {
    pg_connection::statement out{UPSERT,
                                 {who.sensor, who.root, array_literal(_path), array_literal(_key),
                                  array_literal(_creation), array_literal(_start), array_literal(_end),
                                  array_literal(_size)}};
    for (auto* column : {&_path, &_key, &_creation, &_start, &_end, &_size}) column->clear();
    return out;
  }
  unsigned long flush(pg_connection& db, const sensor_identity& who) {
    if (_path.empty()) return 0;
    const pg_connection::statement s = take(who);
    return db.exec(s.sql, s.params).affected();
  }

 private:
  std::vector<pg_param> _path, _key, _creation, _start, _end, _size;
};

unsigned long delete_paths(pg_connection& db, const sensor_identity& who, std::vector<pg_param>& paths) {
  if (paths.empty()) return 0;
  const unsigned long deleted = db.exec(DELETE_PATHS, {who.sensor, array_literal(paths)}).affected();
  paths.clear();
  return deleted;
}

void append_copy_field(std::string& line, const pg_param& value) {
  line += '\t';
  if (value) {
    append_copy_text(line, *value);
  } else {
    line += "\\N";
  }
}

void append_copy_row(std::string& out, const sensor_identity& who, const csl::fs_entry& e, const row_fields& f) {
  append_copy_text(out, who.sensor);
  append_copy_field(out, f.root);
  append_copy_field(out, e.path);
  append_copy_field(out, f.key);
  append_copy_field(out, f.creation);
  append_copy_field(out, f.start);
  append_copy_field(out, f.end);
  append_copy_field(out, f.size);
  out += '\n';
}

// Up to CATALOGUE_CHUNK records in path order after `after` (from the
// first when `from_start`), copied under the catalogue's shared lock.
std::vector<csl::fs_entry> catalogue_chunk(const csl::fs_cache& catalogue, const std::string& after,
                                           bool from_start) {
  std::vector<csl::fs_entry> out;
  out.reserve(CATALOGUE_CHUNK);
  csl::fs_cache::shared_guard lock(catalogue);
  const auto& index = catalogue.path_cache();
  for (auto it = from_start ? index.begin() : index.upper_bound(std::string_view(after));
       it != index.end() && out.size() < CATALOGUE_CHUNK; ++it) {
    out.push_back(**it);
  }
  return out;
}

}  // namespace

void register_sensor(pg_connection& db, const sensor_identity& who) {
  db.exec(
      "INSERT INTO faitra_sensors (sensor, root, url, updated) VALUES ($1, $2, $3, now()) "
      "ON CONFLICT (sensor) DO UPDATE SET root = excluded.root, "
      "url = coalesce(excluded.url, faitra_sensors.url), updated = now()",
      {who.sensor, who.root, who.url.empty() ? pg_param() : pg_param(who.url)});
}

sync_summary resync_sensor(pg_connection& db, const sensor_identity& who, const csl::fs_cache& catalogue,
                           const std::function<bool()>& stopping) {
  return in_transaction(db, [&] {
    sync_summary summary;
    register_sensor(db, who);
    db.exec(OPEN_ROWS, {who.sensor});
    const std::string fetch = "FETCH " + std::to_string(FETCH_ROWS) + " FROM faitra_rows";

    std::vector<csl::fs_entry> chunk = catalogue_chunk(catalogue, "", true);
    size_t ci = 0;
    sql_result rows = db.exec(fetch);
    int di = 0;
    std::string copy;
    bool copying = false;
    struct abandon_on_unwind {
      pg_connection& db;
      bool& copying;
      ~abandon_on_unwind() {
        if (copying) db.copy_abandon();
      }
    } abandon{db, copying};
    const auto send_copy = [&] {
      if (!copying) db.copy_begin(COPY_ROWS);
      copying = true;
      db.copy_put(copy);
      copy.clear();
    };
    // Ends the open COPY, if any, so that another statement can run.
    const auto end_copy = [&] {
      if (!copy.empty()) send_copy();
      if (!copying) return;
      copying = false;
      db.copy_end();
    };
    upsert_batch changed;
    std::vector<pg_param> gone;
    unsigned long longest = 0;

    for (;;) {
      if (ci == chunk.size() && !chunk.empty()) {
        if (stopping()) throw pg_error("stopping");
        const std::string last = chunk.back().path;
        chunk = catalogue_chunk(catalogue, last, false);
        ci = 0;
      }
      if (di == rows.rows() && rows.rows() > 0) {
        end_copy();
        rows = db.exec(fetch);
        di = 0;
      }
      const bool have_record = ci < chunk.size();
      const bool have_row = di < rows.rows();
      if (!have_record && !have_row) break;
      const int order = !have_record ? 1 : !have_row ? -1 : chunk[ci].path.compare(rows.text(di, 0));
      if (order > 0) {  // a row whose capture is no longer catalogued
        gone.emplace_back(rows.text(di++, 0));
        if (gone.size() >= STATEMENT_ROWS) {
          end_copy();
          summary.deleted += delete_paths(db, who, gone);
        }
        continue;
      }
      const csl::fs_entry& record = chunk[ci++];
      ++summary.catalogued;
      longest = std::max(longest, span_of(record));
      const row_fields fields(record, who.root);
      if (order < 0) {  // not in the table yet
        append_copy_row(copy, who, record, fields);
        ++summary.inserted;
        if (copy.size() >= COPY_PIECE_BYTES) send_copy();
      } else {
        if (!fields.same_as(rows, di)) changed.add(record, fields);
        ++di;
        if (changed.size() >= STATEMENT_ROWS) {
          end_copy();
          summary.updated += changed.flush(db, who);
        }
      }
    }
    end_copy();
    summary.updated += changed.flush(db, who);
    summary.deleted += delete_paths(db, who, gone);
    db.exec("CLOSE faitra_rows");
    db.exec(
        "UPDATE faitra_sensors SET longest_capture_ns = $2, last_resync = now(), updated = now() "
        "WHERE sensor = $1",
        {who.sensor, std::to_string(longest)});
    return summary;
  });
}

void apply_changes(pg_connection& db, const sensor_identity& who, const std::vector<csl::fs_entry>& present,
                   const std::vector<std::string>& gone) {
  // One round trip, one transaction.
  std::vector<pg_connection::statement> statements;
  if (!gone.empty()) {
    statements.push_back({DELETE_PATHS, {who.sensor, array_literal(std::vector<pg_param>(gone.begin(), gone.end()))}});
  }
  if (!present.empty()) {
    upsert_batch batch;
    unsigned long longest = 0;
    for (const csl::fs_entry& record : present) {
      batch.add(record, row_fields(record, who.root));
      longest = std::max(longest, span_of(record));
    }
    statements.push_back(batch.take(who));
    statements.push_back({"UPDATE faitra_sensors SET longest_capture_ns = greatest(longest_capture_ns, $2), "
                          "updated = now() WHERE sensor = $1",
                          {who.sensor, std::to_string(longest)}});
  }
  if (!statements.empty()) db.exec_together(statements);
}

}  // namespace faitra_host
