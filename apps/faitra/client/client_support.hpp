// What every client subcommand shares: the options that reach the daemon,
// one HTTP call with its error handling, reading the JSON answer, time
// options and readable tables.
//
// Thread-safety: used from the command's single thread.
#pragma once

#include "table.hpp"
#include <faitra/host/daemon_address.hpp>

#include <CLI/CLI.hpp>
#include <httplib.h>
#include <rapidjson/document.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace faitra_cli {

struct client_options {
  std::string listen = faitra_host::DEFAULT_LISTEN;
  std::string token_file;
  std::string root;  // sent as root= on every request when given
  bool json = false;
};

void add_client_options(CLI::App* sub, client_options& o);

// A refused request or an unreachable daemon; its text goes to standard error.
class failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct answer {
  int status = 0;
  std::string body;
  rapidjson::Document doc;
};

// Sends one request; raises `failure` when the daemon cannot be reached or
// answers with an error status.
answer call(const client_options& o, const std::string& method, const std::string& path,
            const httplib::Params& params = {}, const std::string& body = "");

// Runs `body`, mapping failures to exit status 1 (0 otherwise).
int guarded(const std::function<void()>& body);

// A JSON value as table text ("-" for null), and an object's member (null
// when missing).
std::string text_of(const rapidjson::Value& v);
const rapidjson::Value& member(const rapidjson::Value& object, const char* name);

// The help text of a time option.
extern const char* const TIME_HELP;

// A time option: ns, RFC 3339 or relative to now; in seconds when
// `seconds`, where a plain integer is already seconds. Raises `failure`
// naming the option.
unsigned long time_option(const std::string& option, const std::string& text, bool seconds = false);

// A time field as RFC 3339 (ns, or seconds when `seconds`).
std::string time_text_of(const rapidjson::Value& v, bool seconds = false);


}  // namespace faitra_cli
