// capture_summary: what one pass over a capture file tells about it: the
// earliest and latest packet times, the packet count, the link type and a
// content hash of the file's bytes.
//
// The hash is XXH3-128 of the file's raw bytes (compressed bytes for an
// LZ4 file), as 32 lower-case hex digits. It is fed by the cursor's raw
// observer, so the file is read once: the same read(2) calls serve the
// hash and the record walk. When the walk stops early (a truncated or
// malformed record) the rest of the file is still read for the hash.
//
// start_ns and end_ns are the earliest and latest packet times; for a
// capture written in time order they are its first and last packets.
// Packets without a time (pcapng simple packet blocks) are counted but do
// not move them.
//
// Never throws for anything the file contains (std::bad_alloc aside).
//
// Thread-safety: summarise_capture is reentrant; each call uses its own
// cursor and hash state.
#pragma once

#include <faitra/host/capture_reader.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace faitra_host {

struct capture_summary {
  capture_status status = capture_status::reading;  // how the walk ended
  std::string message;                              // why, when it ended short of `end`
  int error_number = 0;                             // errno of a failed open or read
  capture_format format = capture_format::unknown;
  bool compressed = false;
  bool cancelled = false;
  uint64_t packets = 0;
  std::optional<uint64_t> start_ns;
  std::optional<uint64_t> end_ns;
  uint32_t link_type = 0;          // of the first packet
  bool mixed_link_types = false;   // some packet had another link type
  std::string hash;                // empty unless every byte of the file was read
  uint64_t bytes = 0;              // raw bytes read

  // Times and hash are known: at least one packet with a time, the whole
  // file hashed, and a walk that ended at the end, at a truncated record or
  // at a malformed one (the packets before it count).
  bool usable() const;
};

struct summary_options {
  // Checked once per block read; when it turns true the pass stops with
  // `cancelled` set and no hash.
  const std::atomic<bool>* cancel = nullptr;
  // Called once per block read with the raw bytes read so far.
  std::function<void(uint64_t)> progress;
};

capture_summary summarise_capture(const std::string& path, const summary_options& options = {});

// 32 lower-case hex digits of XXH3-128 over `size` bytes, in the canonical
// (big-endian) byte order that `xxh128sum` prints.
std::string xxh3_128_hex(const void* data, size_t size);

}  // namespace faitra_host
