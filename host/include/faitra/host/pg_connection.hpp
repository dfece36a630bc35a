// One connection to PostgreSQL through libpq, for the catalogue export and
// the fleet commands: statements with text parameters, COPY in both
// directions, and errors as exceptions.
//
// Credentials: the connection string (a postgresql:// URL or key=value
// words) must not carry a password; check_conninfo() refuses one, so that a
// password never sits on a command line, in a process listing or in a log.
// The password comes from a file given to the constructor (its first line),
// or from libpq's own password file (PGPASSFILE, ~/.pgpass or the passfile
// parameter). describe() names the server without credentials, for logs.
//
// Contract: every operation raises pg_error on failure with libpq's message;
// after a failure inside a transaction the caller rolls back (or drops the
// connection). broken() tells whether the connection itself is gone.
//
// Thread-safety: one connection is used by one thread at a time.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// libpq's own types, so that users of this header need no libpq headers.
struct pg_conn;
struct pg_result;

namespace faitra_host {

class pg_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The result of one statement; rows and fields are numbered from 0.
class sql_result {
 public:
  explicit sql_result(::pg_result* result);
  int rows() const;
  bool is_null(int row, int field) const;
  std::string text(int row, int field) const;
  long long number(int row, int field) const;
  // The rows a command changed (INSERT, UPDATE, DELETE, COPY).
  unsigned long affected() const;
  ::pg_result* raw() const { return _result.get(); }

 private:
  std::unique_ptr<::pg_result, void (*)(::pg_result*)> _result;
};

using pg_param = std::optional<std::string>;  // nothing: SQL NULL

class pg_connection {
 public:
  // Empty when `conninfo` is usable; otherwise why not (unparsable, or it
  // carries a password).
  static std::string check_conninfo(const std::string& conninfo);

  // Connects; raises pg_error. `password_file` (may be empty) holds the
  // password on its first line.
  pg_connection(const std::string& conninfo, const std::string& password_file,
                const std::string& application_name = "faitra");
  ~pg_connection();
  pg_connection(const pg_connection&) = delete;
  pg_connection& operator=(const pg_connection&) = delete;

  // "host:port/database" of the live connection.
  std::string describe() const;
  bool broken() const;

  sql_result exec(const std::string& sql);
  sql_result exec(const std::string& sql, const std::vector<pg_param>& params);

  // Runs `statements` in one round trip (libpq's pipeline mode) and in one
  // implicit transaction: all of them or none. The rows each one changed.
  struct statement {
    std::string sql;
    std::vector<pg_param> params;
  };
  std::vector<unsigned long> exec_together(const std::vector<statement>& statements);

  // COPY ... FROM STDIN with `data` in COPY's text format; the rows copied.
  unsigned long copy_in(const std::string& sql, const std::string& data);
  // The same COPY fed piece by piece: copy_put() sends without waiting for
  // the server, which takes the rows in while the caller makes the next
  // ones; copy_end() waits for it and returns the rows copied. No other
  // statement may run on the connection in between.
  void copy_begin(const std::string& sql);
  void copy_put(const std::string& data);
  unsigned long copy_end();
  // Ends an open COPY with an error, so that nothing of it is kept and the
  // connection can roll back; never raises.
  void copy_abandon() noexcept;

  // A literal with the server's quoting, for statements that take no
  // parameters (COPY (query) TO STDOUT).
  std::string literal(const std::string& text) const;

 private:
  [[noreturn]] void fail(const std::string& what) const;
  sql_result check(::pg_result* result, const std::string& what);

  ::pg_conn* _conn = nullptr;
};

// Runs `body` between BEGIN and COMMIT; rolls back (when the connection
// still stands) and raises again when it raises.
template <typename F>
auto in_transaction(pg_connection& db, F&& body) {
  db.exec("BEGIN");
  try {
    auto result = body();
    db.exec("COMMIT");
    return result;
  } catch (...) {
    if (!db.broken()) {
      try {
        db.exec("ROLLBACK");
      } catch (const pg_error&) {
      }
    }
    throw;
  }
}

// Appends `text` to a line of COPY text format (backslash escapes).
void append_copy_text(std::string& out, const std::string& text);
// An array literal ('{"a","b",NULL}') of the texts, for a text[] parameter.
std::string array_literal(const std::vector<pg_param>& items);

// The first line of `path` (the password), without its line end.
std::string read_password_file(const std::string& path);

}  // namespace faitra_host
