#include <faitra/host/packet_retrieval.hpp>

#include <algorithm>

#include <faitra/host/capture_overlap.hpp>

namespace faitra_host {

namespace {

constexpr uint32_t LINKTYPE_ETHERNET = 1;
// Packets handled between two looks at the clock.
constexpr unsigned CLOCK_EVERY = 256;

}  // namespace

const char* to_string(retrieval_end end) {
  switch (end) {
    case retrieval_end::running: return "running";
    case retrieval_end::complete: return "complete";
    case retrieval_end::packet_limit: return "packet limit";
    case retrieval_end::byte_limit: return "byte limit";
  }
  return "unknown";
}

packet_retrieval::packet_retrieval(std::vector<merge_input> captures, const retrieval_request& request)
    : _request(request),
      _merge(std::move(captures), request.start_ns, request.end_ns),
      _filter(request.filter),
      _output(prepare()) {}

packet_retrieval::~packet_retrieval() = default;

std::vector<uint32_t> packet_retrieval::prepare() {
  std::vector<uint32_t> types = _merge.prepare(KEEP_OPEN);
  // Without captures the filter is still checked, so that a mistake shows
  // whatever the window.
  const std::vector<uint32_t> to_compile = types.empty() ? std::vector<uint32_t>{LINKTYPE_ETHERNET} : types;
  for (const uint32_t t : to_compile) {
    std::string error;
    if (!_filter.prepare(t, error)) {
      throw filter_error(to_compile.size() > 1 ? error + " (link type " + std::to_string(t) + ")" : error);
    }
  }
  return types;
}

bool packet_retrieval::produce(std::string& out, size_t chunk, std::chrono::milliseconds slice) {
  if (_end != retrieval_end::running) return false;
  const size_t before = out.size();
  if (!_header_written) {
    _output.header(out);
    _header_written = true;
  }
  const auto deadline = std::chrono::steady_clock::now() + slice;
  packet_record p;
  unsigned since_clock = 0;
  while (out.size() - before < chunk) {
    if (++since_clock == CLOCK_EVERY) {
      since_clock = 0;
      if (std::chrono::steady_clock::now() >= deadline) break;
    }
    if (_counts.packets_written >= _request.limit_packets) {
      _end = retrieval_end::packet_limit;
      break;
    }
    if (!_merge.next(p)) {
      _end = retrieval_end::complete;
      break;
    }
    if (!_filter.matches(p)) continue;
    const uint64_t size = _output.size_of(p);
    if (_counts.bytes_written + (out.size() - before) + size > _request.limit_bytes) {
      _end = retrieval_end::byte_limit;
      break;
    }
    if (!_output.add(p, out)) {
      ++_refused;
      continue;
    }
    ++_counts.packets_written;
  }
  _counts.bytes_written += out.size() - before;
  _counts.packets_refused = _refused + _filter.errors();
  return _end == retrieval_end::running;
}

std::unique_ptr<packet_retrieval> retrieve_from_catalogue(csl::fs_cache& cache, const retrieval_request& request) {
  return retrieve_from_catalogues({&cache}, request);
}

std::unique_ptr<packet_retrieval> retrieve_from_catalogues(const std::vector<csl::fs_cache*>& caches,
                                                           const retrieval_request& request) {
  std::vector<merge_input> inputs;
  uint64_t pending = 0;
  uint64_t without_times = 0;
  for (csl::fs_cache* cache : caches) {
    overlap_selection selection = select_overlapping(*cache, request.start_ns, request.end_ns);
    without_times += selection.without_times;
    for (csl::fs_entry& record : selection.captures) {
      if (record.is_deletion_pending()) {
        ++pending;
        continue;
      }
      inputs.push_back({std::move(record.path), *record.start_ts});
    }
  }
  // Each catalogue's captures come in first-packet order; the merge needs
  // that order across them too (a stable sort keeps one catalogue's ties).
  if (caches.size() > 1) {
    std::stable_sort(inputs.begin(), inputs.end(),
                     [](const merge_input& a, const merge_input& b) { return a.start_ns < b.start_ns; });
  }
  const uint64_t selected = inputs.size();
  auto retrieval = std::make_unique<packet_retrieval>(std::move(inputs), request);
  retrieval->counts().captures_selected = selected;
  retrieval->counts().captures_skipped = without_times;
  retrieval->counts().captures_pending = pending;
  return retrieval;
}

}  // namespace faitra_host
