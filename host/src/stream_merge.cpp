#include <faitra/host/stream_merge.hpp>

#include <faitra/host/packet_output.hpp>

#include <algorithm>
#include <functional>
#include <queue>
#include <utility>

namespace faitra_host {

struct stream_merge::input {
  explicit input(int fd) : cursor(fd, true) {}
  capture_cursor cursor;
  packet_record head;
};

stream_merge::stream_merge(const std::vector<int>& fds) : _results(fds.size()) {
  for (const int fd : fds) _inputs.push_back(std::make_unique<input>(fd));
}

stream_merge::~stream_merge() = default;

// Reads stream `i`'s next timed packet into its head; false once it ended.
bool stream_merge::advance(size_t i) {
  input& in = *_inputs[i];
  while (in.cursor.next(in.head)) {
    if (in.head.has_time) return true;
  }
  _results[i].status = in.cursor.status();
  _results[i].message = in.cursor.message();
  return false;
}

void stream_merge::run(const std::function<void(const std::string&)>& write) {
  using key = std::pair<uint64_t, size_t>;
  std::priority_queue<key, std::vector<key>, std::greater<key>> heads;
  std::vector<uint32_t> link_types;
  for (size_t i = 0; i < _inputs.size(); ++i) {
    if (!advance(i)) continue;
    heads.push({_inputs[i]->head.ts_ns, i});
    const uint32_t type = _inputs[i]->head.link_type;
    if (std::find(link_types.begin(), link_types.end(), type) == link_types.end()) link_types.push_back(type);
  }
  packet_output output(link_types);
  _pcapng = output.pcapng();
  std::string buffer;
  output.header(buffer);
  while (!heads.empty()) {
    const size_t i = heads.top().second;
    heads.pop();
    if (output.add(_inputs[i]->head, buffer)) {
      ++_results[i].packets;
    } else {
      ++_refused;
    }
    if (buffer.size() >= CHUNK) {
      write(buffer);
      buffer.clear();
    }
    if (advance(i)) heads.push({_inputs[i]->head.ts_ns, i});
  }
  write(buffer);
}

}  // namespace faitra_host
