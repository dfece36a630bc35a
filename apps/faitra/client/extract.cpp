// faitra extract: the packets of a time window as one capture file, either
// through a running daemon (GET /v1/packets) or straight from a capture
// directory (--dir) when no daemon runs.
//
// The file is written under a temporary name beside the target and renamed
// over it only once complete, so an error (a refused request, a daemon that
// stops, a full disk) leaves nothing partial behind. Standard output ("-",
// the default) cannot be taken back; a terminal is refused. Progress goes
// to standard error, only when it is a terminal.
//
// With --dir the directory is catalogued the way `faitra serve` does at
// start (captures' attributes), and captures without packet-time
// attributes are read once to learn their first and last packet.
//
// Exit status: 0 when the whole file was written, 1 otherwise.
#include "commands.hpp"
#include "client/daemon_client.hpp"
#include "option_values.hpp"
#include "extract_output.hpp"

#include <faitra/host/capture_overlap.hpp>
#include <faitra/host/capture_summary.hpp>
#include <faitra/host/catalogue.hpp>
#include <faitra/host/daemon_address.hpp>
#include <faitra/host/packet_retrieval.hpp>
#include <faitra/host/time_text.hpp>

#include <cdl/exception.hpp>
#include <cdl/task_system.hpp>

#include <httplib.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace faitra_cli {

using namespace faitra_host;

namespace {

constexpr size_t CHUNK = 1 << 20;
constexpr std::chrono::milliseconds SLICE{100};
// Between two pieces of the daemon's answer: a selective filter over a
// long window may find nothing for a while.
constexpr std::chrono::seconds READ_TIMEOUT{600};

struct extract_options {
  std::string start;
  std::string end;
  std::string filter;
  std::string write = "-";
  std::string dir;
  std::optional<unsigned long> limit_packets;
  std::optional<unsigned long> limit_bytes;
  std::vector<std::string> suffixes{".pcap", ".pcapng"};
  std::string listen = DEFAULT_LISTEN;
  std::string token_file;
};

class failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A time given on the command line: ns, RFC 3339 or relative to now.
uint64_t time_option(const std::string& option, const std::string& text) {
  std::string error;
  const auto ns = parse_time_ns(text, wall_clock_ns(), error);
  if (!ns) throw failure(option + ": " + error);
  return *ns;
}

void from_daemon(const extract_options& o, const retrieval_request& r, output_file& out, progress& shown) {
  const daemon_client daemon = connect_daemon(o.listen, o.token_file, READ_TIMEOUT);
  httplib::Params params{{"start", std::to_string(r.start_ns)}, {"end", std::to_string(r.end_ns)}};
  if (!r.filter.empty()) params.emplace("filter", r.filter);
  if (o.limit_packets) params.emplace("limit_packets", std::to_string(*o.limit_packets));
  if (o.limit_bytes) params.emplace("limit_bytes", std::to_string(*o.limit_bytes));

  int status = 0;
  std::string selected = "?";
  std::string refusal;
  std::optional<std::string> write_failure;
  const httplib::Result result = daemon.client->Get(
      httplib::append_query_params("/v1/packets", params), daemon.headers,
      [&](const httplib::Response& res) {
        status = res.status;
        if (res.has_header("X-Faitra-Captures-Selected")) selected = res.get_header_value("X-Faitra-Captures-Selected");
        return true;
      },
      [&](const char* data, size_t size) {
        if (status != 200) {
          refusal.append(data, std::min(size, size_t{65536} - std::min(refusal.size(), size_t{65536})));
          return true;
        }
        try {
          out.write(data, size);
        } catch (const std::runtime_error& e) {
          write_failure = e.what();
          return false;
        }
        shown.update(human_bytes(out.bytes()) + " from " + selected + " captures");
        return true;
      });
  if (write_failure) throw failure(*write_failure);
  if (!result) {
    throw failure("the retrieval from the daemon at " + o.listen + " did not complete: " +
                  (result.error() == httplib::Error::Connection ? std::string("cannot connect")
                                                                : httplib::to_string(result.error())));
  }
  if (status != 200) throw failure(refusal_text(refusal) + " (HTTP " + std::to_string(status) + ")");
  shown.finish(human_bytes(out.bytes()) + " from " + selected + " captures to " + out.shown());
}

// The captures of `dir` that overlap the window, in first-packet order.
std::vector<merge_input> directory_captures(const extract_options& o, const retrieval_request& r, progress& shown) {
  struct stat status {};
  if (::stat(o.dir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    throw failure("--dir: " + o.dir + " is not a directory");
  }
  std::string dir = o.dir;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  // Declared first so that the catalogue outlives the groups, as it must.
  std::optional<catalogue> c;
  cdl::core core;
  cdl::worker_group workers(core, {1, "faitra extract"});
  cdl::task_listener_group listeners(workers);
  capture_filter filter(o.suffixes, {dir});
  try {
    c = build_catalogue(listeners, dir, {dir}, false, filter, nullptr);
  } catch (const cdl::exception& e) {
    throw failure("--dir: " + dir + ": " + e.what());
  }
  overlap_selection selection = select_overlapping(*c->cache, r.start_ns, r.end_ns);
  std::vector<merge_input> inputs;
  for (csl::fs_entry& record : selection.captures) inputs.push_back({std::move(record.path), *record.start_ts});
  std::vector<std::string> untimed;
  {
    csl::fs_cache::shared_guard lock(*c->cache);
    for (const auto& record : c->cache->path_cache()) {
      if (record->start_ts.is_null() || record->end_ts.is_null()) untimed.push_back(record->path);
    }
  }
  for (size_t i = 0; i < untimed.size(); ++i) {
    shown.update("reading the packet times of " + std::to_string(i + 1) + " of " + std::to_string(untimed.size()) +
                 " captures without attributes");
    const capture_summary summary = summarise_capture(untimed[i]);
    if (summary.start_ns && summary.end_ns && *summary.start_ns <= r.end_ns && *summary.end_ns >= r.start_ns) {
      inputs.push_back({untimed[i], *summary.start_ns});
    }
  }
  std::sort(inputs.begin(), inputs.end(), [](const merge_input& a, const merge_input& b) {
    return a.start_ns != b.start_ns ? a.start_ns < b.start_ns : a.path < b.path;
  });
  return inputs;
}

void from_directory(const extract_options& o, const retrieval_request& r, output_file& out, progress& shown) {
  std::vector<merge_input> inputs = directory_captures(o, r, shown);
  const size_t selected = inputs.size();
  std::unique_ptr<packet_retrieval> retrieval;
  try {
    retrieval = std::make_unique<packet_retrieval>(std::move(inputs), r);
  } catch (const filter_error& e) {
    throw failure(std::string("--filter: ") + e.what());
  }
  std::string buffer;
  auto line = [&] {
    return std::to_string(retrieval->counts().packets_written) + " packets, " + human_bytes(out.bytes()) +
           " from " + std::to_string(retrieval->merge().opened) + " of " + std::to_string(selected) + " captures";
  };
  for (bool more = true; more;) {
    buffer.clear();
    more = retrieval->produce(buffer, CHUNK, SLICE);
    out.write(buffer.data(), buffer.size());
    shown.update(line());
  }
  for (const std::string& problem : retrieval->problems()) std::fprintf(stderr, "faitra extract: %s\n", problem.c_str());
  shown.finish(line() + " to " + out.shown());
}

int run_extract(const extract_options& o) {
  try {
    retrieval_request r;
    r.start_ns = time_option("--start", o.start);
    r.end_ns = time_option("--end", o.end);
    if (r.start_ns > r.end_ns) throw failure("--start must not be after --end");
    r.filter = o.filter;
    if (o.limit_packets) r.limit_packets = *o.limit_packets;
    if (o.limit_bytes) r.limit_bytes = *o.limit_bytes;
    progress shown;
    output_file out(o.write);
    if (o.dir.empty()) {
      from_daemon(o, r, out, shown);
    } else {
      from_directory(o, r, out, shown);
    }
    out.commit();
    return 0;
  } catch (const std::exception& e) {
    // On a terminal the progress line is cleared first.
    std::fprintf(stderr, "%sfaitra extract: %s\n", ::isatty(STDERR_FILENO) ? "\r\033[K" : "", e.what());
    return 1;
  }
}

}  // namespace

void register_extract(CLI::App& app, int& exit_code) {
  auto o = std::make_shared<extract_options>();
  auto* sub = app.add_subcommand(
      "extract",
      "Write the packets of a time window as one capture file: every packet from every capture that overlaps "
      "[--start, --end], merged in time order and filtered with a BPF expression; through the daemon, or from a "
      "capture directory with --dir");
  sub->footer(
      "The file is classic pcap with nanosecond times when the captures share a link type, pcapng otherwise.\n"
      "It is written under a temporary name beside FILE and renamed at the end: on error nothing is left.\n"
      "Progress goes to standard error when it is a terminal. Exit status 0 when the whole file was written.");
  sub->add_option("--start", o->start,
                  "Start of the window, inclusive: ns since the epoch, RFC 3339 (2026-11-23T10:02:00Z) or relative "
                  "to now (-5m)")
      ->required();
  sub->add_option("--end", o->end, "End of the window, inclusive")->required();
  sub->add_option("--filter", o->filter, "BPF filter expression, as tcpdump takes it (default: every packet)");
  sub->add_option("-w,--write", o->write, "Where to write the capture: FILE, or - for standard output")
      ->capture_default_str();
  sub->add_option("--limit-packets", o->limit_packets, "Stop after this many packets")->check(unsigned_value(1));
  sub->add_option("--limit-bytes", o->limit_bytes,
                  "Stop before the file would grow beyond this many bytes (its header is always written)")
      ->check(unsigned_value(1));
  auto* dir = sub->add_option("--dir", o->dir, "Read this capture directory directly instead of asking the daemon");
  sub->add_option("--suffix", o->suffixes, "With --dir: file name endings of captures (default: .pcap, .pcapng)")
      ->needs(dir)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  sub->add_option("--listen", o->listen, "Where the daemon listens: HOST:PORT or unix:PATH")
      ->capture_default_str()
      ->excludes(dir);
  sub->add_option("--token-file", o->token_file, "File holding the daemon's bearer token")
      ->check(CLI::ExistingFile)
      ->excludes(dir);
  sub->callback([o, &exit_code] { exit_code = run_extract(*o); });
}

}  // namespace faitra_cli
