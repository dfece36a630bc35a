#include <faitra/host/pg_connection.hpp>

#include <libpq-fe.h>

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

namespace faitra_host {

namespace {

constexpr size_t COPY_PIECE = 1 << 20;

std::string trimmed_error(const char* message) {
  std::string text = message == nullptr ? "" : message;
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text.empty() ? "unknown error" : text;
}

}  // namespace

sql_result::sql_result(::pg_result* result) : _result(result, &PQclear) {}

int sql_result::rows() const { return PQntuples(_result.get()); }

bool sql_result::is_null(int row, int field) const { return PQgetisnull(_result.get(), row, field) != 0; }

std::string sql_result::text(int row, int field) const { return PQgetvalue(_result.get(), row, field); }

long long sql_result::number(int row, int field) const {
  return std::strtoll(PQgetvalue(_result.get(), row, field), nullptr, 10);
}

unsigned long sql_result::affected() const {
  const char* text = PQcmdTuples(_result.get());
  return text == nullptr || *text == '\0' ? 0 : std::strtoul(text, nullptr, 10);
}

std::string pg_connection::check_conninfo(const std::string& conninfo) {
  char* message = nullptr;
  PQconninfoOption* options = PQconninfoParse(conninfo.c_str(), &message);
  if (options == nullptr) {
    std::string error = "unusable connection string: " + trimmed_error(message);
    PQfreemem(message);
    return error;
  }
  std::string error;
  for (const PQconninfoOption* o = options; o->keyword != nullptr; ++o) {
    if (std::strcmp(o->keyword, "password") == 0 && o->val != nullptr && *o->val != '\0') {
      error = "the connection string carries a password; put it in a password file (or PGPASSFILE) instead";
    }
  }
  PQconninfoFree(options);
  return error;
}

std::string read_password_file(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) throw pg_error("cannot read " + path + ": " + std::strerror(errno));
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw pg_error(path + " may be read by others; make it private (chmod 600)");
  }
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) throw pg_error("cannot read a password from " + path);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

pg_connection::pg_connection(const std::string& conninfo, const std::string& password_file,
                             const std::string& application_name) {
  const std::string refused = check_conninfo(conninfo);
  if (!refused.empty()) throw pg_error(refused);
  const std::string password = password_file.empty() ? "" : read_password_file(password_file);
  // Values before dbname are defaults the connection string may override.
  std::vector<const char*> keywords = {"application_name", "connect_timeout", "dbname"};
  std::vector<const char*> values = {application_name.c_str(), "10", conninfo.c_str()};
  if (!password_file.empty()) {
    keywords.push_back("password");
    values.push_back(password.c_str());
  }
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  _conn = PQconnectdbParams(keywords.data(), values.data(), 1);
  if (_conn == nullptr) throw pg_error("out of memory");
  if (PQstatus(_conn) != CONNECTION_OK) {
    const std::string error = trimmed_error(PQerrorMessage(_conn));
    PQfinish(_conn);
    _conn = nullptr;
    throw pg_error(error);
  }
  // Notices (such as "already exists, skipping") are not for the operator.
  PQsetNoticeProcessor(_conn, [](void*, const char*) {}, nullptr);
}

pg_connection::~pg_connection() {
  if (_conn != nullptr) PQfinish(_conn);
}

std::string pg_connection::describe() const {
  const char* host = PQhost(_conn);
  const char* port = PQport(_conn);
  const char* db = PQdb(_conn);
  return std::string(host == nullptr ? "" : host) + ":" + (port == nullptr ? "" : port) + "/" +
         (db == nullptr ? "" : db);
}

bool pg_connection::broken() const { return PQstatus(_conn) != CONNECTION_OK; }

void pg_connection::fail(const std::string& what) const {
  throw pg_error(what + ": " + trimmed_error(PQerrorMessage(_conn)));
}

sql_result pg_connection::check(::pg_result* raw, const std::string& what) {
  sql_result result(raw);
  const ExecStatusType status = PQresultStatus(raw);
  if (raw == nullptr || (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)) {
    if (raw == nullptr) fail(what);
    throw pg_error(what + ": " + trimmed_error(PQresultErrorMessage(raw)));
  }
  return result;
}

sql_result pg_connection::exec(const std::string& sql) { return check(PQexec(_conn, sql.c_str()), "query failed"); }

sql_result pg_connection::exec(const std::string& sql, const std::vector<pg_param>& params) {
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const pg_param& p : params) values.push_back(p ? p->c_str() : nullptr);
  return check(PQexecParams(_conn, sql.c_str(), static_cast<int>(values.size()), nullptr, values.data(), nullptr,
                            nullptr, 0),
               "query failed");
}

std::vector<unsigned long> pg_connection::exec_together(const std::vector<statement>& statements) {
  if (PQenterPipelineMode(_conn) != 1) fail("cannot send statements together");
  std::string error;
  for (const statement& s : statements) {
    std::vector<const char*> values;
    for (const pg_param& p : s.params) values.push_back(p ? p->c_str() : nullptr);
    if (PQsendQueryParams(_conn, s.sql.c_str(), static_cast<int>(values.size()), nullptr, values.data(), nullptr,
                          nullptr, 0) != 1) {
      error = trimmed_error(PQerrorMessage(_conn));
      break;
    }
  }
  // The sync ends the implicit transaction: it commits, or rolls back after
  // an error. Every result up to it is read before leaving pipeline mode.
  if (PQpipelineSync(_conn) != 1) {
    PQexitPipelineMode(_conn);
    fail("cannot send statements together");
  }
  std::vector<unsigned long> affected;
  for (;;) {
    sql_result result(PQgetResult(_conn));
    if (result.raw() == nullptr) {  // the end of one statement's results
      if (PQstatus(_conn) != CONNECTION_OK) break;
      continue;
    }
    const ExecStatusType status = PQresultStatus(result.raw());
    if (status == PGRES_PIPELINE_SYNC) break;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
      affected.push_back(result.affected());
    } else if (error.empty() && status != PGRES_PIPELINE_ABORTED) {
      error = trimmed_error(PQresultErrorMessage(result.raw()));
    }
  }
  PQexitPipelineMode(_conn);
  if (!error.empty()) throw pg_error("query failed: " + error);
  if (affected.size() != statements.size()) fail("the connection broke");
  return affected;
}

unsigned long pg_connection::copy_in(const std::string& sql, const std::string& data) {
  copy_begin(sql);
  copy_put(data);
  return copy_end();
}

void pg_connection::copy_begin(const std::string& sql) {
  ::pg_result* start = PQexec(_conn, sql.c_str());
  const bool ready = PQresultStatus(start) == PGRES_COPY_IN;
  const std::string error = ready ? "" : trimmed_error(PQresultErrorMessage(start));
  PQclear(start);
  if (!ready) throw pg_error("COPY refused: " + error);
}

void pg_connection::copy_put(const std::string& data) {
  for (size_t at = 0; at < data.size(); at += COPY_PIECE) {
    const size_t piece = std::min(COPY_PIECE, data.size() - at);
    if (PQputCopyData(_conn, data.data() + at, static_cast<int>(piece)) != 1) fail("COPY failed");
  }
}

unsigned long pg_connection::copy_end() {
  if (PQputCopyEnd(_conn, nullptr) != 1) fail("COPY failed");
  unsigned long rows = 0;
  std::string error;
  while (::pg_result* raw = PQgetResult(_conn)) {
    sql_result r(raw);
    if (PQresultStatus(raw) != PGRES_COMMAND_OK) error = trimmed_error(PQresultErrorMessage(raw));
    rows += r.affected();
  }
  if (!error.empty()) throw pg_error("COPY failed: " + error);
  return rows;
}

void pg_connection::copy_abandon() noexcept {
  if (PQputCopyEnd(_conn, "abandoned by the sender") != 1) return;
  while (::pg_result* raw = PQgetResult(_conn)) PQclear(raw);
}

std::string pg_connection::literal(const std::string& text) const {
  char* quoted = PQescapeLiteral(_conn, text.data(), text.size());
  if (quoted == nullptr) fail("cannot quote a literal");
  std::string out(quoted);
  PQfreemem(quoted);
  return out;
}

void append_copy_text(std::string& out, const std::string& text) {
  for (const char c : text) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
}

std::string array_literal(const std::vector<pg_param>& items) {
  std::string out = "{";
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += ',';
    if (!items[i]) {
      out += "NULL";
      continue;
    }
    out += '"';
    for (const char c : *items[i]) {
      if (c == '"' || c == '\\') out += '\\';
      out += c;
    }
    out += '"';
  }
  out += '}';
  return out;
}

}  // namespace faitra_host
