#include <faitra/host/capture_summary.hpp>

#include "content_hash.hpp"

namespace faitra_host {

bool capture_summary::usable() const {
  const bool walked = status == capture_status::end || status == capture_status::truncated ||
                      status == capture_status::malformed;
  return walked && !cancelled && start_ns.has_value() && !hash.empty();
}

std::string xxh3_128_hex(const void* data, size_t size) {
  detail::content_hash hash;
  hash.update(data, size);
  return hash.hex();
}

capture_summary summarise_capture(const std::string& path, const summary_options& options) {
  capture_summary summary;
  detail::content_hash hash;
  bool cancelled = false;
  uint64_t bytes = 0;
  capture_cursor cursor(path, [&](const unsigned char* data, size_t size) {
    hash.update(data, size);
    bytes += size;
    if (options.progress) options.progress(bytes);
    if (options.cancel != nullptr && options.cancel->load(std::memory_order_relaxed)) cancelled = true;
  });

  packet_record packet;
  uint64_t low = UINT64_MAX;
  uint64_t high = 0;
  uint64_t timed = 0;
  bool first = true;
  while (!cancelled && cursor.next(packet)) {
    if (first) {
      summary.link_type = packet.link_type;
      first = false;
    } else if (packet.link_type != summary.link_type) {
      summary.mixed_link_types = true;
    }
    if (!packet.has_time) continue;
    ++timed;
    if (packet.ts_ns < low) low = packet.ts_ns;
    if (packet.ts_ns > high) high = packet.ts_ns;
  }
  summary.status = cursor.status();
  summary.message = cursor.message();
  summary.error_number = cursor.error_number();
  summary.format = cursor.format();
  summary.compressed = cursor.compressed();
  summary.packets = cursor.packets();
  if (timed > 0) {
    summary.start_ns = low;
    summary.end_ns = high;
  }
  const bool whole = summary.status == capture_status::end ||
                     ((summary.status == capture_status::truncated || summary.status == capture_status::malformed) &&
                      !cancelled && cursor.drain());
  if (cancelled) {
    summary.cancelled = true;
  } else if (whole) {
    summary.hash = hash.hex();
  } else if (summary.status != capture_status::not_a_capture && summary.status != capture_status::read_failed) {
    summary.status = capture_status::read_failed;
    summary.error_number = cursor.error_number();
    summary.message = "read failed while hashing the rest of the file";
  }
  summary.bytes = bytes;
  return summary;
}

}  // namespace faitra_host
