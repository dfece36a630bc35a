// faitra_load: drives a running `faitra serve` with a mix of reads and
// deletions for a set time and prints what it measured.
//
//   faitra_load --listen ADDR --seconds N [--clients N] [--pid PID] [--token-file FILE]
//
// Each client thread keeps one connection and sends, at random: listings of
// a time range, lookups, status and storage reads, full listings (which
// also refresh the captures it knows), deletions by path of known captures
// and deletions of the oldest known capture by its time range. Deletions
// spare the newest KEPT captures it knows, so that reads keep finding a
// catalogue while the writer adds to it. Answers the
// API gives in normal operation count as successes: 200, and 404 for a
// lookup or deletion of a capture that someone else deleted first. Anything
// else, and any request that gets no answer, is an error.
//
// Output: requests, requests per second, latency percentiles, errors, and
// with --pid the daemon's resident memory (VmRSS) before the load, after a
// tenth of the run (warmed up) and at the end. Exit status 1 when there was
// any error.
#include <faitra/host/daemon_address.hpp>

#include <httplib.h>
#include <rapidjson/document.h>

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

struct options {
  std::string listen;
  double seconds = 60;
  unsigned clients = 2;
  long pid = 0;
  std::string token_file;
};

enum class op { list_range, list_all, lookup, status, storage, delete_path, delete_time, count };
const char* const OP_NAMES[] = {"list_range", "list_all", "lookup", "status", "storage", "delete_path", "delete_time"};
// Relative weights of the operations, in the order above.
const unsigned OP_WEIGHTS[] = {30, 8, 15, 15, 10, 14, 8};

constexpr size_t KEPT = 300;

struct capture {
  std::string path;
  unsigned long start_ts;
};

struct client_result {
  std::vector<unsigned> latencies_us;
  unsigned long per_op[static_cast<int>(op::count)] = {};
  unsigned long errors = 0;
  std::map<std::string, unsigned long> error_kinds;
};

long rss_kb(long pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

std::unique_ptr<httplib::Client> connect(const faitra_host::listen_address& address) {
  std::unique_ptr<httplib::Client> client;
  if (address.unix_socket) {
    client = std::make_unique<httplib::Client>(address.host);
    client->set_address_family(AF_UNIX);
  } else {
    client = std::make_unique<httplib::Client>(address.host, address.port);
  }
  client->set_keep_alive(true);
  client->set_connection_timeout(std::chrono::seconds(5));
  client->set_read_timeout(std::chrono::seconds(30));
  return client;
}

// The captures of a full listing, in the daemon's (path, hence time) order.
std::vector<capture> captures_of(const std::string& body) {
  std::vector<capture> out;
  rapidjson::Document doc;
  doc.Parse(body.data(), body.size());
  if (!doc.IsObject() || !doc.HasMember("captures") || !doc["captures"].IsArray()) return out;
  for (const auto& record : doc["captures"].GetArray()) {
    if (!record["path"].IsString() || !record["start_ts"].IsUint64()) continue;
    out.push_back({record["path"].GetString(), record["start_ts"].GetUint64()});
  }
  return out;
}

void run_client(const faitra_host::listen_address& address, const httplib::Headers& headers,
                clock_type::time_point end, unsigned seed, client_result& result) {
  auto client = connect(address);
  std::mt19937_64 random(seed);
  std::discrete_distribution<int> pick(std::begin(OP_WEIGHTS), std::end(OP_WEIGHTS));
  std::vector<capture> known;
  auto any = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };

  while (clock_type::now() < end) {
    op what = static_cast<op>(pick(random));
    if ((what == op::delete_path || what == op::delete_time) && known.size() <= KEPT) what = op::list_range;
    if (known.empty() && what != op::status && what != op::storage) what = op::list_all;
    std::string method = "GET";
    std::string target;
    bool may_be_gone = false;
    switch (what) {
      case op::list_range: {
        const unsigned long a = known[any(known.size())].start_ts;
        const unsigned long b = known[any(known.size())].start_ts;
        target = "/v1/captures?start=" + std::to_string(std::min(a, b)) + "&end=" + std::to_string(std::max(a, b)) +
                 "&limit=100";
        break;
      }
      case op::list_all:
        target = "/v1/captures?limit=1000";
        break;
      case op::lookup:
        target = "/v1/captures/lookup?path=" + httplib::detail::encode_query_param(known[any(known.size())].path);
        may_be_gone = true;
        break;
      case op::status:
        target = "/v1/status";
        break;
      case op::storage:
        target = "/v1/storage";
        break;
      case op::delete_path: {
        method = "DELETE";
        const size_t victim = any(known.size() - KEPT);
        target = "/v1/captures?path=" + httplib::detail::encode_query_param(known[victim].path);
        known.erase(known.begin() + static_cast<long>(victim));
        may_be_gone = true;
        break;
      }
      case op::delete_time: {
        method = "DELETE";
        const std::string ts = std::to_string(known.front().start_ts);
        target = "/v1/captures?start=" + ts + "&end=" + ts + "&by=start";
        known.erase(known.begin());
        break;
      }
      case op::count:
        break;
    }
    const auto sent = clock_type::now();
    httplib::Result r = method == "GET" ? client->Get(target, headers) : client->Delete(target, headers);
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(clock_type::now() - sent).count();
    result.latencies_us.push_back(static_cast<unsigned>(took));
    ++result.per_op[static_cast<int>(what)];
    std::string failure;
    if (!r) {
      failure = "no answer (" + httplib::to_string(r.error()) + ")";
      client = connect(address);
    } else if (r->status != 200 && !(r->status == 404 && may_be_gone)) {
      failure = std::string(OP_NAMES[static_cast<int>(what)]) + " status " + std::to_string(r->status);
    } else if (what == op::list_all) {
      known = captures_of(r->body);
    }
    if (!failure.empty()) {
      ++result.errors;
      ++result.error_kinds[failure];
    }
  }
}

bool parse_args(int argc, char** argv, options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return false;
    const std::string value = argv[++i];
    if (arg == "--listen") {
      o.listen = value;
    } else if (arg == "--seconds") {
      o.seconds = std::strtod(value.c_str(), nullptr);
    } else if (arg == "--clients") {
      o.clients = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
    } else if (arg == "--pid") {
      o.pid = std::strtol(value.c_str(), nullptr, 10);
    } else if (arg == "--token-file") {
      o.token_file = value;
    } else {
      return false;
    }
  }
  return !o.listen.empty() && o.seconds > 0 && o.clients > 0;
}

unsigned percentile(const std::vector<unsigned>& sorted, double p) {
  if (sorted.empty()) return 0;
  const size_t at = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
  return sorted[std::min(at, sorted.size() - 1)];
}

}  // namespace

int main(int argc, char** argv) {
  options o;
  if (!parse_args(argc, argv, o)) {
    std::fprintf(stderr,
                 "usage: faitra_load --listen ADDR --seconds N [--clients N] [--pid PID] [--token-file FILE]\n");
    return 2;
  }
  faitra_host::listen_address address;
  std::string error;
  if (!faitra_host::parse_listen_address(o.listen, address, error)) {
    std::fprintf(stderr, "faitra_load: --listen: %s\n", error.c_str());
    return 2;
  }
  httplib::Headers headers;
  if (!o.token_file.empty()) {
    const auto token = faitra_host::read_token_file(o.token_file, error);
    if (!token) {
      std::fprintf(stderr, "faitra_load: --token-file: %s\n", error.c_str());
      return 2;
    }
    headers.emplace("Authorization", "Bearer " + *token);
  }

  const long rss_before = o.pid > 0 ? rss_kb(o.pid) : -1;
  const auto begin = clock_type::now();
  const auto end = begin + std::chrono::duration_cast<clock_type::duration>(std::chrono::duration<double>(o.seconds));
  std::vector<client_result> results(o.clients);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < o.clients; ++i) {
    threads.emplace_back(run_client, std::cref(address), std::cref(headers), end, 12345U + i, std::ref(results[i]));
  }
  // The resident size once the daemon has warmed up, and its peak.
  long rss_warm = -1;
  long rss_peak = rss_before;
  const auto warm_at = begin + (end - begin) / 10;
  while (clock_type::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    if (o.pid <= 0) continue;
    const long now = rss_kb(o.pid);
    rss_peak = std::max(rss_peak, now);
    if (rss_warm < 0 && clock_type::now() >= warm_at) rss_warm = now;
  }
  for (std::thread& t : threads) t.join();
  const double elapsed = std::chrono::duration<double>(clock_type::now() - begin).count();
  const long rss_after = o.pid > 0 ? rss_kb(o.pid) : -1;

  std::vector<unsigned> latencies;
  unsigned long per_op[static_cast<int>(op::count)] = {};
  unsigned long errors = 0;
  std::map<std::string, unsigned long> error_kinds;
  for (const client_result& r : results) {
    latencies.insert(latencies.end(), r.latencies_us.begin(), r.latencies_us.end());
    for (int i = 0; i < static_cast<int>(op::count); ++i) per_op[i] += r.per_op[i];
    errors += r.errors;
    for (const auto& [kind, n] : r.error_kinds) error_kinds[kind] += n;
  }
  std::sort(latencies.begin(), latencies.end());
  std::printf("seconds             %.1f\n", elapsed);
  std::printf("clients             %u\n", o.clients);
  std::printf("requests            %zu\n", latencies.size());
  std::printf("requests_per_second %.0f\n", static_cast<double>(latencies.size()) / elapsed);
  std::printf("latency_us          p50 %u  p99 %u  max %u\n", percentile(latencies, 0.50),
              percentile(latencies, 0.99), latencies.empty() ? 0U : latencies.back());
  std::printf("by_operation       ");
  for (int i = 0; i < static_cast<int>(op::count); ++i) std::printf(" %s %lu", OP_NAMES[i], per_op[i]);
  std::printf("\nerrors              %lu\n", errors);
  for (const auto& [kind, n] : error_kinds) std::printf("  %lu x %s\n", n, kind.c_str());
  if (o.pid > 0) {
    std::printf("daemon_rss_kb       before %ld  warm %ld  after %ld  peak %ld\n", rss_before, rss_warm, rss_after,
                rss_peak);
  }
  return errors == 0 ? 0 : 1;
}
