// GET /v1/packets: the packets of a time window, streamed as one capture
// file over chunked HTTP (docs/api.md).
//
// Everything that can refuse the request (parameters, the concurrency cap,
// the filter) is settled before the status line goes out. The retrieval
// then runs inside httplib's content provider on the request's own server
// thread, one piece (CHUNK bytes or SLICE of work) per call, so a client
// that goes away makes the next write fail and the provider return false:
// httplib drops the response, and with it the retrieval and its
// descriptors. The slice also lets a stopping server end a retrieval whose
// filter keeps nothing for a long time.
//
// Thread-safety: the gate is atomic; each retrieval belongs to one server
// thread.
#include "serve/http_api.hpp"

#include <faitra/host/packet_retrieval.hpp>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace faitra_cli {

using namespace faitra_host;

namespace {

constexpr size_t CHUNK = 256 * 1024;
constexpr std::chrono::milliseconds SLICE{50};
const char* const RETRY_AFTER_SECONDS = "1";

// Admits at most `max` retrievals at a time.
class retrieval_gate {
 public:
  explicit retrieval_gate(unsigned max) : _max(max) {}
  bool enter() {
    unsigned now = _active.load();
    do {
      if (now >= _max) return false;
    } while (!_active.compare_exchange_weak(now, now + 1));
    return true;
  }
  void leave() { _active.fetch_sub(1); }

 private:
  const unsigned _max;
  std::atomic<unsigned> _active{0};
};

// One streaming retrieval and what its log line needs. It holds its place
// at the gate until the last copy of it goes (with the response).
struct stream {
  explicit stream(std::shared_ptr<retrieval_gate> g) : gate(std::move(g)) {}
  ~stream() { gate->leave(); }
  stream(const stream&) = delete;
  stream& operator=(const stream&) = delete;

  std::shared_ptr<retrieval_gate> gate;
  std::unique_ptr<packet_retrieval> retrieval;
  std::string what;  // window and filter, for the log
  std::string buffer;
  bool header_sent = false;
  std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
  bool client_gone = false;
  bool failed = false;
};

void log_end(cdl::log* log, const stream& s) {
  if (log == nullptr) return;
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - s.began);
  const retrieval_counts& c = s.retrieval->counts();
  const merge_counts& m = s.retrieval->merge();
  const char* ended = s.failed ? "failed" : s.client_gone ? "the client went away" : to_string(s.retrieval->end());
  log->info("Packets of %s: %lu captures read of %lu selected (%lu vanished, %lu damaged), %lu packets read, "
            "%lu written (%lu bytes) in %ld ms; ended: %s",
            s.what, static_cast<unsigned long>(m.opened), static_cast<unsigned long>(c.captures_selected),
            static_cast<unsigned long>(m.vanished), static_cast<unsigned long>(m.damaged),
            static_cast<unsigned long>(m.packets_read), static_cast<unsigned long>(c.packets_written),
            static_cast<unsigned long>(c.bytes_written), static_cast<long>(ms.count()), ended);
  for (const std::string& problem : s.retrieval->problems()) log->write(cdl::log_priority::warning, "Packets of %s: %s", s.what, problem);
  if (c.packets_refused > 0) {
    log->write(cdl::log_priority::warning, "Packets of %s: %lu packets left out (a link type the output or the filter cannot take)", s.what,
                 static_cast<unsigned long>(c.packets_refused));
  }
}

}  // namespace

void install_packets_route(httplib::Server& server, const http_api& api, unsigned max_retrievals) {
  auto gate = std::make_shared<retrieval_gate>(max_retrievals);
  server.Get("/v1/packets", api.guarded([&api, gate](const httplib::Request& req, httplib::Response& res) {
    const packets_request query = parse_packets_request(req.target);
    const std::vector<capture_daemon*> roots = api.roots_for(req);
    if (!gate->enter()) {
      res.set_header("Retry-After", RETRY_AFTER_SECONDS);
      throw api_error(503, "too many packet retrievals are running; try again shortly");
    }
    auto s = std::make_shared<stream>(gate);
    retrieval_request request;
    request.start_ns = query.window.start;
    request.end_ns = query.window.end;
    request.filter = query.filter;
    request.limit_packets = query.limit_packets;
    request.limit_bytes = query.limit_bytes;
    // Appended piece by piece: GCC 12's -Wrestrict misfires on "[" + text at -O3.
    s->what = "[";
    s->what += std::to_string(request.start_ns) + ", " + std::to_string(request.end_ns) + "]";
    if (!request.filter.empty()) s->what += " '" + request.filter + "'";
    try {
      std::vector<csl::fs_cache*> caches;
      for (capture_daemon* d : roots) caches.push_back(&d->cache());
      s->retrieval = retrieve_from_catalogues(caches, request);
    } catch (const filter_error& e) {
      throw api_error(400, std::string("filter: ") + e.what());
    }
    const retrieval_counts& c = s->retrieval->counts();
    const packet_output& output = s->retrieval->output();
    res.set_header("X-Faitra-Captures-Selected", std::to_string(c.captures_selected));
    res.set_header("X-Faitra-Captures-Skipped", std::to_string(c.captures_skipped));
    res.set_header("X-Faitra-Captures-Pending-Deletion", std::to_string(c.captures_pending));
    res.set_header("Content-Disposition", "attachment; filename=\"packets-" + std::to_string(request.start_ns) +
                                              "-" + std::to_string(request.end_ns) + output.file_suffix() + "\"");
    cdl::log* log = roots.front()->log();
    res.set_chunked_content_provider(
        output.content_type(),
        [s, log](size_t, httplib::DataSink& sink) {
          // An exception must not leave the provider: httplib would not
          // catch it on this thread.
          try {
            s->buffer.clear();
            // The file header goes out alone, as soon as it is known.
            const bool more = s->retrieval->produce(s->buffer, s->header_sent ? CHUNK : 1, SLICE);
            s->header_sent = true;
            if (!s->buffer.empty() && !sink.write(s->buffer.data(), s->buffer.size())) {
              s->client_gone = true;
              return false;
            }
            if (!more) sink.done();
            return true;
          } catch (const std::exception& e) {
            if (log != nullptr) log->error("Packets of %s failed: %s", s->what, e.what());
            s->failed = true;
            return false;
          }
        },
        [s, log](bool success) {
          if (!success && s->retrieval->end() == retrieval_end::running && !s->failed) s->client_gone = true;
          log_end(log, *s);
          s->retrieval.reset();  // closes the captures now
        });
  }));
}

}  // namespace faitra_cli
