// faitra serve: the daemon.
#include "commands.hpp"
#include "option_values.hpp"
#include <faitra/host/daemon.hpp>
#include "serve/config_file.hpp"
#include "serve/http_api.hpp"
#include "serve/json_log.hpp"
#include "serve/root_options.hpp"
#include <faitra/host/capture_roots.hpp>
#include <faitra/host/daemon_address.hpp>
#include <faitra/host/listen_socket.hpp>
#include <faitra/host/time_text.hpp>

#include <httplib.h>

#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

namespace faitra_cli {

using namespace faitra_host;

namespace {

// Blocks of at least this size are mapped and unmapped on their own.
constexpr size_t MMAP_THRESHOLD_BYTES = 1024 * 1024;

struct serve_options {
  std::vector<std::string> roots;
  root_settings each;  // for every root, unless its [[root]] table says otherwise
  std::string listen = DEFAULT_LISTEN;
  std::string token_file;
  bool log_stdout = false;
  std::string log_format = "text";
  std::string config;
  bool check_config = false;
  cdl::log_priority::value log_level = cdl::log_priority::info;
  bool verbose = false;
  unsigned long reconcile_interval = 60;
  unsigned max_retrievals = http_api::DEFAULT_MAX_RETRIEVALS;
  bool derive_metadata = false;  // the default anyway; kept for explicit configurations
  bool no_derive_metadata = false;
  std::string export_postgres;
  std::string export_password_file;
  std::string sensor;
  std::string sensor_url;
  size_t export_queue = export_options{}.queue_capacity;
};

// The longest --reconcile-interval: a year (0 turns the periodic runs off).
constexpr unsigned long MAX_RECONCILE_INTERVAL_SECONDS = 365UL * 24 * 3600;

// httplib's server, listening on a socket opened beforehand
// (open_listen_socket), so that a failure to listen is known, with its
// reason, before the daemon scans.
class adopting_server : public httplib::Server {
 public:
  void adopt(int listening_fd) { svr_sock_ = listening_fd; }
};

// Every root's options: the command's, then those of the root's [[root]]
// table in the configuration file, if it has one; the daemon-wide options
// (logging, reconcile, derivation, export) alike for all. Raises
// std::invalid_argument or config_error with a readable message.
std::vector<daemon_options> root_options(const serve_options& cli, const CLI::App& serve, bool log_level_given) {
  const std::vector<root_table> tables = read_root_tables(cli.config, serve);
  if (cli.roots.size() > 1 && !cli.each.hold_dir.empty()) {
    throw std::invalid_argument("--hold-dir is one directory: with several roots, give each its own in its "
                                "[[root]] table");
  }
  std::vector<daemon_options> roots;
  for (const std::string& root : cli.roots) {
    root_settings settings = cli.each;
    for (const root_table& t : tables) {
      if (normal_directory(t.path) == normal_directory(root)) settings = apply_root_table(cli.each, t);
    }
    daemon_options o = root_daemon_options(root, settings);
    // JSON lines go through the logs' syslog calls (serve/json_log.hpp).
    const bool json_log = cli.log_format == "json";
    o.log_stdout = cli.log_stdout && !json_log;
    o.log_level = cli.verbose && !log_level_given ? cdl::log_priority::debug : cli.log_level;
    o.verbose = cli.verbose;
    o.reconcile_interval = std::chrono::seconds(cli.reconcile_interval);
    o.derive_metadata = !cli.no_derive_metadata;
    if (cli.roots.size() > 1) o.log_label = "(" + normal_directory(root) + ")";
    if (!cli.export_postgres.empty()) {
      if (cli.sensor.empty()) throw std::invalid_argument("--export-postgres needs --sensor NAME");
      export_options to;
      to.conninfo = cli.export_postgres;
      to.password_file = cli.export_password_file;
      to.who.sensor = cli.sensor;
      to.who.url = cli.sensor_url;
      to.queue_capacity = cli.export_queue;
      o.export_to = std::move(to);
    }
    roots.push_back(std::move(o));
  }
  return roots;
}

// SIGHUP (sent by operators and log rotation) reloads what can change while
// the daemon runs: the token file. A token that cannot be read leaves the
// current one in force. It never stops the daemon.
void reload(const serve_options& cli, http_api& api, cdl::log* log) {
  if (cli.token_file.empty()) {
    log->info("Received SIGHUP; nothing to reload (no --token-file)");
    return;
  }
  std::string error;
  const std::optional<std::string> token = read_token_file(cli.token_file, error);
  if (!token) {
    log->error("Received SIGHUP; cannot reload the token: %s; the current token stays in force", error);
    return;
  }
  api.set_token(*token);
  log->info("Received SIGHUP; reloaded the token from %s", cli.token_file);
}

int run_serve(const serve_options& cli, const CLI::App& serve, bool log_level_given) {
  listen_address address;
  std::string error;
  if (!parse_listen_address(cli.listen, address, error)) {
    std::cerr << "faitra serve: --listen: " << error << "\n";
    return 1;
  }
  std::optional<std::string> token;
  if (!cli.token_file.empty()) {
    token = read_token_file(cli.token_file, error);
    if (!token) {
      std::cerr << "faitra serve: --token-file: " << error << "\n";
      return 1;
    }
  }

  // Listen first: a daemon that cannot listen says why and exits before it
  // scans anything or starts its cleaner.
  int port = 0;
  const int listening_fd = open_listen_socket(address, port, error);
  if (listening_fd < 0) {
    std::cerr << "faitra serve: cannot listen on " << cli.listen << ": " << error << "\n";
    return 1;
  }
  const std::string shown = address.unix_socket || address.port != 0
                                ? cli.listen
                                : address.host_for_display() + ":" + std::to_string(port);
  const auto abandon_socket = [&] {
    ::close(listening_fd);
    if (address.unix_socket) ::unlink(address.host.c_str());
  };

  std::vector<daemon_options> roots;
  try {
    roots = root_options(cli, serve, log_level_given);
  } catch (const std::exception& e) {
    std::cerr << "faitra serve: " << e.what() << "\n";
    abandon_socket();
    return 1;
  }
  const bool json_log = cli.log_format == "json";

  // Each directory scan (at start and at every reconcile) takes a 16 MB
  // buffer. glibc serves the first from mmap, but on its release raises its
  // mmap threshold above that size, so later buffers come from the heap and
  // stay resident once freed, fragmented by what the scan allocates after
  // them: the daemon grew by 16 MB at a time. A fixed threshold keeps
  // large blocks in mmap, returned to the system when freed.
  ::mallopt(M_MMAP_THRESHOLD, static_cast<int>(MMAP_THRESHOLD_BYTES));

  // Every thread started from here on inherits this mask, so the two stop
  // signals and SIGHUP reach only the sigtimedwait below.
  sigset_t handled_signals;
  sigemptyset(&handled_signals);
  sigaddset(&handled_signals, SIGTERM);
  sigaddset(&handled_signals, SIGINT);
  sigaddset(&handled_signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &handled_signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  if (json_log) {
    use_json_log();
  } else if (!cli.log_stdout) {
    ::openlog("faitra", LOG_PID, LOG_LOCAL0);
  }

  std::unique_ptr<capture_roots> daemon;
  try {
    daemon = std::make_unique<capture_roots>(std::move(roots));
  } catch (const std::exception& e) {
    std::cerr << "faitra serve: " << e.what() << "\n";
    abandon_socket();
    return 1;
  }
  cdl::log* log = daemon->first().log();

  adopting_server server;
  http_api api(*daemon, token, cli.max_retrievals);
  api.install(server);
  server.set_keep_alive_timeout(2);
  // httplib writes a response's headers and body separately; with Nagle's
  // algorithm the body then waits for the client's delayed acknowledgement
  // (40 ms on Linux) on every request of a kept-alive TCP connection. The
  // listening socket has TCP_NODELAY already, which accepted connections
  // inherit.
  server.set_tcp_nodelay(true);
  if (address.unix_socket) server.set_address_family(AF_UNIX);
  server.adopt(listening_fd);
  log->info("Listening on %s%s", shown, token ? " (bearer token required)" : "");

  std::atomic<bool> listener_ended{false};
  std::thread listener([&] {
    server.listen_after_bind();
    listener_ended = true;
  });
  // httplib's stop() does nothing until its loop runs; a stop signal must
  // not come in between.
  while (!server.is_running() && !listener_ended.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  int exit_code = 0;
  const timespec poll_interval{0, 200 * 1000 * 1000};
  for (;;) {
    const int signal_number = ::sigtimedwait(&handled_signals, nullptr, &poll_interval);
    if (signal_number == SIGHUP) reload(cli, api, log);
    if (signal_number == SIGTERM || signal_number == SIGINT) {
      log->info("Received %s; stopping", signal_number == SIGTERM ? "SIGTERM" : "SIGINT");
      break;
    }
    if (listener_ended.load()) {
      log->critical("The HTTP server stopped unexpectedly; stopping");
      exit_code = 1;
      break;
    }
  }

  server.stop();
  listener.join();
  if (address.unix_socket) ::unlink(address.host.c_str());
  daemon->shutdown();
  daemon.reset();
  return exit_code;
}

}  // namespace

void register_serve(CLI::App& app, int& exit_code) {
  auto cli = std::make_shared<serve_options>();
  auto* sub = app.add_subcommand(
      "serve",
      "Run the daemon: catalogue the capture files under --root (scanned at start, then followed live "
      "through inotify and checked by a periodic reconcile), delete the oldest captures when the file "
      "system fills, and serve the HTTP JSON API that the client subcommands (ls, rm, df, cleanup, "
      "metadata-cleanup, status, reconcile) use. Stops cleanly on SIGTERM or SIGINT (exit status 0); "
      "SIGHUP reloads the token file.");
  sub->add_option("--root", cli->roots,
                  "Root directory of the captures (required); repeat for several roots, each with its own "
                  "catalogue and cleanup (per-root options in the --config file's [[root]] tables)")
      ->required()
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(CLI::ExistingDirectory);
  add_root_options(*sub, cli->each);
  sub->add_option("--listen", cli->listen,
                  "Where the API listens: HOST:PORT ([v6-address]:PORT for IPv6; port 0 picks a free one and "
                  "logs it) or unix:PATH for a Unix socket")
      ->capture_default_str();
  sub->add_option("--token-file", cli->token_file,
                  "File holding a token; every request must then send 'Authorization: Bearer <token>'")
      ->check(CLI::ExistingFile);
  sub->add_flag("--log-stdout", cli->log_stdout, "Log to standard output instead of syslog");
  sub->add_option("--log-format", cli->log_format,
                  "text: the usual lines (to syslog, or to standard output with --log-stdout); json: one JSON "
                  "object per line on standard output (time, level, priority, facility, type, component, "
                  "message), for journald or a log shipper")
      ->capture_default_str()
      ->check(CLI::IsMember({"text", "json"}));
  auto* level = sub->add_option("--log-level", cli->log_level,
                                std::string("Most verbose priority logged: ") + LOG_LEVEL_NAMES + " (default: info)")
                    ->type_name("LEVEL")
                    ->transform(log_level_value());
  sub->add_flag("--verbose", cli->verbose,
                "Log each cleanup decision with its figures; implies --log-level debug unless one is given");
  sub->add_option("--reconcile-interval", cli->reconcile_interval,
                  "Seconds between two reconciles of the catalogue with the directories; 0 runs them only at "
                  "start and on request; at most a year")
      ->capture_default_str()
      ->check(unsigned_value(0, MAX_RECONCILE_INTERVAL_SECONDS));
  sub->add_option("--max-retrievals", cli->max_retrievals,
                  "Packet retrievals (GET /v1/packets) served at the same time; more are answered 503 with "
                  "Retry-After. Each has a server thread of its own")
      ->capture_default_str()
      ->check(unsigned_value(1, 16));
  sub->add_option("--export-postgres", cli->export_postgres,
                  "Keep this sensor's captures in a central PostgreSQL table (postgresql://HOST/DB or key=value "
                  "words, without a password): a full resync on start and after every reconnection, live changes "
                  "in batches. The tables are created if missing");
  sub->add_option("--export-password-file", cli->export_password_file,
                  "File (mode 600) whose first line is the database password; without it, libpq's own password "
                  "file (PGPASSFILE, ~/.pgpass) is used")
      ->check(CLI::ExistingFile);
  sub->add_option("--sensor", cli->sensor, "This sensor's name in the central table (letters, digits, '.', '_', '-')");
  sub->add_option("--sensor-url", cli->sensor_url,
                  "The URL at which other hosts reach this daemon's API, published in the sensors table for "
                  "'faitra fleet extract'");
  sub->add_option("--export-queue", cli->export_queue,
                  "Changes queued for the database before the export falls back to a full resync")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  sub->add_flag("--derive-metadata", cli->derive_metadata,
                "Derive the key, start, end and creation time of captures that lack their attributes from their "
                "packets, and set the attributes on the files (the default)");
  sub->add_flag("--no-derive-metadata", cli->no_derive_metadata,
                "Leave captures without attributes without times and key");
  sub->add_option("--config", cli->config,
                  "TOML file of options (e.g. /etc/faitra/faitra.toml): every option above is a key, named "
                  "without its dashes; options on the command line win over the file");
  sub->add_flag("--check-config", cli->check_config,
                "Check the options (and the --config file), print the settings in effect as a configuration "
                "file, and exit: 0 when they are usable");
  sub->callback([cli, level, sub, &exit_code] {
    if (cli->check_config) {
      try {
        std::cout << effective_config(*sub, read_root_tables(cli->config, *sub));
        root_options(*cli, *sub, false);
        exit_code = 0;
      } catch (const std::exception& e) {
        std::cerr << "faitra serve: " << e.what() << "\n";
        exit_code = 1;
      }
      return;
    }
    exit_code = run_serve(*cli, *sub, level->count() > 0);
  });
}

}  // namespace faitra_cli
