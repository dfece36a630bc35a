#include <faitra/host/packet_merge.hpp>

#include "capture_probe.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace faitra_host {

namespace {

int open_capture(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return fd;
}

// Orders the heap so that its front is the smallest (time, input).
bool later(const auto& a, const auto& b) {
  return a.ts_ns != b.ts_ns ? a.ts_ns > b.ts_ns : a.input > b.input;
}

}  // namespace

struct packet_merge::source {
  merge_input input;
  int fd = -1;         // kept open by prepare(), owned until the cursor takes it
  bool gone = false;   // could not be opened at prepare()
  std::unique_ptr<capture_cursor> cursor;
  packet_record packet;

  ~source() {
    if (fd >= 0) ::close(fd);
  }
};

packet_merge::packet_merge(std::vector<merge_input> inputs, uint64_t start_ns, uint64_t end_ns)
    : _start(start_ns), _end(end_ns) {
  _sources.reserve(inputs.size());
  for (merge_input& in : inputs) {
    auto s = std::make_unique<source>();
    s->input = std::move(in);
    _sources.push_back(std::move(s));
  }
}

packet_merge::~packet_merge() = default;

void packet_merge::problem(const std::string& path, const std::string& what) {
  if (_problems.size() < MAX_PROBLEMS) _problems.push_back(path + ": " + what);
}

std::vector<uint32_t> packet_merge::prepare(size_t keep_open) {
  std::vector<uint32_t> types;
  auto add = [&](uint32_t t) {
    if (std::find(types.begin(), types.end(), t) == types.end()) types.push_back(t);
  };
  for (size_t i = 0; i < _sources.size(); ++i) {
    source& s = *_sources[i];
    const int fd = open_capture(s.input.path);
    if (fd < 0) {
      s.gone = true;
      ++_counts.vanished;
      problem(s.input.path, std::string("cannot be opened: ") + std::strerror(errno));
      continue;
    }
    if (const auto declared = detail::probe_link_types(fd)) {
      for (const uint32_t t : *declared) add(t);
    } else {
      capture_cursor peek(fd, false);
      packet_record first;
      if (peek.next(first)) add(first.link_type);
      ::lseek(fd, 0, SEEK_SET);
    }
    if (i < keep_open) {
      s.fd = fd;
    } else {
      ::close(fd);
    }
  }
  return types;
}

void packet_merge::heap_push(head h) {
  _heap.push_back(h);
  std::push_heap(_heap.begin(), _heap.end(), [](const head& a, const head& b) { return later(a, b); });
}

packet_merge::head packet_merge::heap_pop() {
  std::pop_heap(_heap.begin(), _heap.end(), [](const head& a, const head& b) { return later(a, b); });
  const head h = _heap.back();
  _heap.pop_back();
  return h;
}

void packet_merge::open_next() {
  const size_t i = _next_open++;
  source& s = *_sources[i];
  if (s.gone) return;
  int fd = s.fd;
  s.fd = -1;
  if (fd < 0) fd = open_capture(s.input.path);
  if (fd < 0) {
    ++_counts.vanished;
    problem(s.input.path, std::string("gone before it was read: ") + std::strerror(errno));
    return;
  }
  ++_counts.opened;
  s.cursor = std::make_unique<capture_cursor>(fd, true);
  advance(i);
}

// Moves input `i` to its next packet in the window, or closes it.
void packet_merge::advance(size_t i) {
  source& s = *_sources[i];
  capture_cursor& c = *s.cursor;
  packet_record& p = s.packet;
  while (c.next(p)) {
    ++_counts.packets_read;
    if (!p.has_time) {
      ++_counts.without_time;
      continue;
    }
    if (p.ts_ns < _start) continue;
    if (p.ts_ns > _end) break;
    heap_push({p.ts_ns, i});
    return;
  }
  const capture_status status = c.status();
  if (status != capture_status::reading && status != capture_status::end && status != capture_status::truncated) {
    ++_counts.damaged;
    problem(s.input.path, std::string(to_string(status)) + (c.message().empty() ? "" : ": " + c.message()));
  }
  s.cursor.reset();
}

bool packet_merge::next(packet_record& out) {
  if (_returned != SIZE_MAX) {
    const size_t i = _returned;
    _returned = SIZE_MAX;
    advance(i);
  }
  while (_next_open < _sources.size() &&
         (_heap.empty() || _sources[_next_open]->input.start_ns <= _heap.front().ts_ns)) {
    open_next();
  }
  if (_heap.empty()) return false;
  const head h = heap_pop();
  out = _sources[h.input]->packet;
  _returned = h.input;
  return true;
}

}  // namespace faitra_host
