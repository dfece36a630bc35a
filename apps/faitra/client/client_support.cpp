#include "client/client_support.hpp"

#include "client/daemon_client.hpp"

#include <faitra/host/escaped_bytes.hpp>
#include <faitra/host/time_text.hpp>

#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>

namespace faitra_cli {

using namespace faitra_host;

const char* const TIME_HELP = "ns since the epoch, RFC 3339 (2026-11-23T10:02:00Z) or relative (-5m, now)";

void add_client_options(CLI::App* sub, client_options& o) {
  sub->add_option("--listen", o.listen, "Where the daemon listens: HOST:PORT or unix:PATH")->capture_default_str();
  sub->add_option("--token-file", o.token_file, "File holding the daemon's bearer token")->check(CLI::ExistingFile);
  sub->add_option("--root", o.root,
                  "On a daemon with several capture roots, the root to ask about (default: every root, or the "
                  "first where the answer is about one)");
  sub->add_flag("--json", o.json, "Print the daemon's JSON answer as it is");
}

answer call(const client_options& o, const std::string& method, const std::string& path,
            const httplib::Params& params, const std::string& body) {
  // A reconcile may take a while.
  const daemon_client daemon = connect_daemon(o.listen, o.token_file, std::chrono::seconds(90));
  httplib::Client* client = daemon.client.get();
  const httplib::Headers& headers = daemon.headers;
  httplib::Params sent = params;
  if (!o.root.empty()) sent.emplace("root", o.root);
  const std::string target = sent.empty() ? path : httplib::append_query_params(path, sent);
  httplib::Result result = [&] {
    if (method == "GET") return client->Get(target, headers);
    if (method == "DELETE") return client->Delete(target, headers);
    if (method == "POST") return client->Post(target, headers, body, "application/json");
    return client->Put(target, headers, body, "application/json");
  }();
  if (!result) {
    const httplib::Error e = result.error();
    throw failure("cannot reach the daemon at " + o.listen + ": " +
                  (e == httplib::Error::Connection ? std::string("cannot connect") : httplib::to_string(e)));
  }
  answer a;
  a.status = result->status;
  a.body = result->body;
  const bool is_json = result->get_header_value("Content-Type").rfind("application/json", 0) == 0;
  if (is_json) a.doc.Parse(a.body.c_str());
  if (a.status >= 300) {
    std::string message = a.body;
    if (is_json && !a.doc.HasParseError() && a.doc.IsObject() && a.doc.HasMember("error") &&
        a.doc["error"].IsString()) {
      message = a.doc["error"].GetString();
    }
    throw failure(message + " (HTTP " + std::to_string(a.status) + ")");
  }
  if (is_json && a.doc.HasParseError()) throw failure("the daemon's answer is not valid JSON");
  return a;
}

int guarded(const std::function<void()>& body) {
  try {
    body();
    return 0;
  } catch (const failure& e) {
    std::cerr << "faitra: " << e.what() << "\n";
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "faitra: " << e.what() << "\n";
    return 1;
  }
}

std::string text_of(const rapidjson::Value& v) {
  if (v.IsNull()) return "-";
  // Bytes that are not UTF-8 come escaped; print them as they are.
  if (v.IsString()) return restore_escaped_bytes(std::string(v.GetString(), v.GetStringLength()));
  if (v.IsBool()) return v.GetBool() ? "yes" : "no";
  if (v.IsUint64()) return std::to_string(v.GetUint64());
  if (v.IsInt64()) return std::to_string(v.GetInt64());
  if (v.IsDouble()) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v.GetDouble());
    return text;
  }
  return "?";
}

const rapidjson::Value& member(const rapidjson::Value& object, const char* name) {
  static const rapidjson::Value null_value;
  if (!object.IsObject()) return null_value;
  const auto it = object.FindMember(name);
  return it == object.MemberEnd() ? null_value : it->value;
}

unsigned long time_option(const std::string& option, const std::string& text, bool seconds) {
  const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  std::string error;
  if (seconds && digits) {
    const auto value = parse_time_ns(text, 0, error);  // digits are taken as they are
    if (!value) throw failure(option + ": " + text + " does not fit 64 bits");
    return *value;
  }
  const auto ns = parse_time_ns(text, wall_clock_ns(), error);
  if (!ns) throw failure(option + ": " + error);
  return seconds ? *ns / NS_PER_SECOND : *ns;
}

std::string time_text_of(const rapidjson::Value& v, bool seconds) {
  if (!v.IsUint64()) return text_of(v);
  if (seconds && v.GetUint64() > std::numeric_limits<uint64_t>::max() / NS_PER_SECOND) return text_of(v);
  return format_time_ns(seconds ? v.GetUint64() * NS_PER_SECOND : v.GetUint64());
}

}  // namespace faitra_cli
