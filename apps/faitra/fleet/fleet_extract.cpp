// faitra fleet extract: the packets of a time window from every sensor that
// holds part of it, merged by time into one capture file.
//
// The central table says which sensors hold captures overlapping the
// window; each one is asked for its packets (GET /v1/packets, with the same
// window and filter) on a thread of its own that feeds a pipe, and the
// streams are merged as they arrive (stream_merge). A sensor that cannot be
// reached, refuses, or whose answer breaks off is reported on standard
// error; the others' packets are still written. The file goes under a
// temporary name and is renamed at the end (extract_output.hpp).
//
// Exit status: 0 when every sensor answered in full; 3 (EXIT_PARTIAL) when
// some did not (the file holds the others' packets); 1 when none did or
// the database could not be asked (nothing is written).
#include "extract_output.hpp"
#include "fleet/fleet_options.hpp"
#include <faitra/host/daemon_address.hpp>
#include <faitra/host/fleet_query.hpp>
#include <faitra/host/stream_merge.hpp>

#include <httplib.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>
#include <thread>

namespace faitra_cli {

using namespace faitra_host;

namespace {

struct extract_options : fleet_options {
  std::string filter;
  std::string write = "-";
  std::string sensors_file;
  std::string token_file;
  unsigned long timeout = 600;
};

// One sensor's answer, fetched on its own thread into a pipe.
struct sensor_fetch {
  std::string sensor;
  sensor_endpoint endpoint;
  unsigned long captures = 0;  // overlapping the window, by the table
  int write_fd = -1;
  bool answered = false;
  std::string error;
  std::thread thread;
};

bool write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;  // the merge has stopped reading
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void fetch(sensor_fetch& f, const std::string& target, std::chrono::seconds timeout) {
  httplib::Client client(f.endpoint.url);
  if (!client.is_valid()) {
    f.error = "cannot use the URL " + f.endpoint.url;
    ::close(f.write_fd);
    return;
  }
  client.set_connection_timeout(std::chrono::seconds(10));
  client.set_read_timeout(timeout);
  httplib::Headers headers;
  if (!f.endpoint.token.empty()) headers.emplace("Authorization", "Bearer " + f.endpoint.token);
  int status = 0;
  std::string refusal;
  const httplib::Result result = client.Get(
      target, headers,
      [&](const httplib::Response& res) {
        status = res.status;
        return true;
      },
      [&](const char* data, size_t size) {
        if (status == 200) return write_all(f.write_fd, data, size);
        refusal.append(data, std::min(size, size_t{65536}));
        return true;
      });
  ::close(f.write_fd);
  if (!result) {
    f.error = "did not answer: " + (result.error() == httplib::Error::Connection
                                        ? std::string("cannot connect to ") + f.endpoint.url
                                        : httplib::to_string(result.error()));
  } else if (status != 200) {
    f.error = "refused: " + refusal_text(refusal) + " (HTTP " + std::to_string(status) + ")";
  } else {
    f.answered = true;
  }
}

// Joins the fetch threads on the way out, after the merge (which owns the
// pipes' reading ends) is gone, so that no writer is left blocked.
struct fetch_threads {
  std::vector<sensor_fetch>& fetches;
  ~fetch_threads() {
    for (sensor_fetch& f : fetches) {
      if (f.thread.joinable()) f.thread.join();
    }
  }
};

std::vector<sensor_fetch> plan(const extract_options& o, pg_connection& db) {
  std::map<std::string, unsigned long> holding;
  for (const fleet_capture& c : captures_overlapping(db, o.start, o.end, o.sensors)) ++holding[c.sensor];
  std::map<std::string, sensor_endpoint> endpoints = sensors_from_table(db);
  if (!o.sensors_file.empty()) {
    for (auto& [name, endpoint] : sensors_from_file(o.sensors_file)) endpoints[name] = endpoint;
  }
  std::string default_token;
  if (!o.token_file.empty()) {
    std::string error;
    const auto token = read_token_file(o.token_file, error);
    if (!token) throw std::runtime_error("--token-file: " + error);
    default_token = *token;
  }
  std::vector<sensor_fetch> fetches(holding.size());
  size_t i = 0;
  for (const auto& [name, captures] : holding) {
    sensor_fetch& f = fetches[i++];
    f.sensor = name;
    f.captures = captures;
    f.endpoint = endpoints[name];
    if (f.endpoint.token.empty()) f.endpoint.token = default_token;
  }
  return fetches;
}

int run_fleet_extract(const extract_options& o) {
  ::signal(SIGPIPE, SIG_IGN);
  auto db = connect_fleet_db(o);
  std::vector<sensor_fetch> fetches = plan(o, *db);
  db.reset();
  httplib::Params params{{"start", std::to_string(o.start)}, {"end", std::to_string(o.end)}};
  if (!o.filter.empty()) params.emplace("filter", o.filter);
  const std::string target = httplib::append_query_params("/v1/packets", params);

  output_file out(o.write);
  progress shown;
  std::vector<int> read_fds;
  for (sensor_fetch& f : fetches) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      for (const int fd : read_fds) ::close(fd);
      throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    read_fds.push_back(fds[0]);
    f.write_fd = fds[1];
  }
  std::vector<stream_merge::stream_result> results;
  {
    fetch_threads joined{fetches};  // destroyed after the merge, which closes the reading ends
    // A Client built from a URL first compiles cpp-httplib's URL pattern, a
    // function-local static; building one here, before the fetch threads,
    // keeps that one-time set-up out of their way.
    { const httplib::Client warm_up("http://127.0.0.1:1"); }
    stream_merge merge(read_fds);
    for (sensor_fetch& f : fetches) {
      if (f.endpoint.url.empty()) {
        f.error = "no URL is known for it (faitra serve --sensor-url, the sensors table or --sensors FILE)";
        ::close(f.write_fd);
      } else {
        f.thread = std::thread(fetch, std::ref(f), target, std::chrono::seconds(o.timeout));
      }
    }
    merge.run([&](const std::string& piece) {
      out.write(piece.data(), piece.size());
      shown.update(human_bytes(out.bytes()) + " from " + std::to_string(fetches.size()) + " sensors");
    });
    results = merge.results();
    if (merge.refused() > 0) {
      std::cerr << "faitra fleet extract: " << merge.refused()
                << " packets left out: a link type the classic pcap output cannot carry\n";
    }
  }
  size_t complete = 0;
  for (size_t i = 0; i < fetches.size(); ++i) {
    sensor_fetch& f = fetches[i];
    if (f.answered && results[i].status != capture_status::end) {
      f.answered = false;
      f.error = "its answer broke off: " + std::string(to_string(results[i].status)) +
                (results[i].message.empty() ? "" : ": " + results[i].message);
    }
    complete += f.answered ? 1 : 0;
    std::cerr << "faitra fleet extract: " << f.sensor << ": "
              << (f.answered ? std::to_string(results[i].packets) + " packets from " + std::to_string(f.captures) +
                                   " captures"
                             : f.error + " (" + std::to_string(results[i].packets) + " packets kept)")
              << "\n";
  }
  if (complete == 0 && !fetches.empty()) {
    throw std::runtime_error("no sensor answered; nothing written");
  }
  out.commit();
  shown.finish(human_bytes(out.bytes()) + " from " + std::to_string(complete) + " of " +
               std::to_string(fetches.size()) + " sensors to " + out.shown());
  return complete == fetches.size() ? 0 : EXIT_PARTIAL;
}

}  // namespace

void register_fleet_extract(CLI::App& fleet, int& exit_code) {
  auto o = std::make_shared<extract_options>();
  auto* sub = fleet.add_subcommand(
      "extract",
      "Write the packets of a time window from every sensor that holds part of it as one capture file: the "
      "central table says which sensors to ask, each one's /v1/packets answer is merged by time as it arrives");
  sub->footer(
      "Each sensor's API URL and token come from the faitra_sensors table (url, token), from --sensors FILE "
      "(lines 'NAME URL [TOKEN-FILE]'), and --token-file for sensors without a token of their own.\n"
      "Exit status 0 when every sensor answered in full, 3 when the file lacks some sensors' packets (each is "
      "named on standard error), 1 when nothing could be written.");
  add_fleet_options(sub, *o);
  sub->add_option("--filter", o->filter, "BPF filter expression each sensor applies (default: every packet)");
  sub->add_option("-w,--write", o->write, "Where to write the capture: FILE, or - for standard output")
      ->capture_default_str();
  sub->add_option("--sensors", o->sensors_file, "File of 'NAME URL [TOKEN-FILE]' lines, over the table's")
      ->check(CLI::ExistingFile);
  sub->add_option("--token-file", o->token_file, "Bearer token for the sensors that have none of their own")
      ->check(CLI::ExistingFile);
  sub->add_option("--timeout", o->timeout, "Seconds a sensor may stay silent before it counts as not answering")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  sub->callback([o, &exit_code] { exit_code = fleet_guarded([&] { return run_fleet_extract(*o); }); });
}

}  // namespace faitra_cli
