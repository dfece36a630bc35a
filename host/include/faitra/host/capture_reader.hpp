// capture_cursor: the packets of one capture file, in file order, one at a
// time, each with its time in ns since the epoch, its link type, its
// captured and original lengths and its bytes.
//
// Formats: classic pcap (microsecond and nanosecond magics, either byte
// order, and the variant with 24-byte record headers); pcapng (several
// sections of either byte order, several interfaces, if_tsresol in powers
// of ten or of two, if_tsoffset, enhanced, simple and obsolete packet
// blocks; other blocks are skipped); and either one inside LZ4 frames.
//
// Why a record walker of its own rather than libpcap: deriving a capture's
// metadata needs the record headers and the file's raw bytes (for the
// content hash) in one pass at the speed of read(2). libpcap reads through
// stdio in small pieces, hides the raw bytes and cannot read LZ4; this
// walker reads 1 MiB blocks into one buffer, hands each block to an
// observer (the hash) and then only hops from header to header. A record
// that straddles two blocks is moved to the front of the buffer, never more
// than one record per block; the buffer grows only for a record larger than
// a block, up to MAX_RECORD. Memory is therefore about 1 MiB per cursor
// (2 MiB for LZ4), whatever the file's size.
//
// Contract:
//  - next() returns true with the next packet, or false once status() is no
//    longer `reading`. The packet's bytes stay valid until the next call.
//  - A file that ends inside a record (still being written, or cut off)
//    ends with `truncated`: every complete record before it was returned.
//  - A record that cannot be one (impossible length, unknown interface,
//    mismatched pcapng trailer) ends with `malformed`; the packets before it
//    were returned. A file that starts like no capture ends with
//    `not_a_capture` before any packet; an empty file too.
//  - Nothing is thrown for anything a file contains; a failed allocation
//    may throw std::bad_alloc. The cursor never loops: every call consumes
//    at least one record or ends the stream.
//
// Thread-safety: a cursor is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace faitra_host {

namespace detail {
class capture_source;
}

enum class capture_status : uint8_t {
  reading,        // more packets may follow
  end,            // the file ended after a complete record
  truncated,      // the file ended inside a record (or inside the file header)
  malformed,      // a record no capture writer could have written
  not_a_capture,  // neither pcap nor pcapng (an empty file included)
  read_failed,    // open(2) or read(2) failed, or the LZ4 frames are damaged
};

const char* to_string(capture_status status);

enum class capture_format : uint8_t { unknown, pcap, pcapng };

struct packet_record {
  uint64_t ts_ns = 0;     // ns since the epoch (if_tsoffset applied)
  bool has_time = true;   // false for a pcapng simple packet block, which carries none
  uint32_t link_type = 0; // LINKTYPE_* value
  uint32_t interface = 0; // pcapng interface index within its section; 0 for pcap
  uint32_t caplen = 0;    // bytes present in `data`
  uint32_t origlen = 0;   // length of the packet on the wire
  const unsigned char* data = nullptr;
};

class capture_cursor {
 public:
  // Called with every block of the file's raw bytes, in order, before it is
  // decoded or walked.
  using raw_observer = std::function<void(const unsigned char*, size_t)>;

  // The largest record or pcapng block accepted, in bytes.
  static constexpr size_t MAX_RECORD = size_t{16} << 20;
  // The most interfaces one pcapng section may describe.
  static constexpr size_t MAX_INTERFACES = 65536;

  // Opens `path` read-only; a failure shows as `read_failed` (see
  // error_number()).
  explicit capture_cursor(const std::string& path, raw_observer observer = {});
  // Reads from `fd` at its current offset; closes it on destruction when
  // `owned`.
  capture_cursor(int fd, bool owned, raw_observer observer = {});
  ~capture_cursor();
  capture_cursor(const capture_cursor&) = delete;
  capture_cursor& operator=(const capture_cursor&) = delete;

  bool next(packet_record& out);

  capture_status status() const { return _status; }
  // Why the stream ended short of `end`; empty otherwise.
  const std::string& message() const { return _message; }
  // errno of a failed open(2) or read(2); 0 otherwise.
  int error_number() const { return _errno; }
  capture_format format() const { return _format; }
  bool compressed() const;
  uint64_t packets() const { return _packets; }
  // Raw bytes read from the file so far.
  uint64_t raw_bytes() const;
  // Reads the rest of the file for the observer, after the stream ended
  // short of its end. False when a read fails.
  bool drain();

 private:
  struct interface_info;
  struct state;

  bool fill(size_t need);
  bool stop(capture_status status, std::string message);
  bool end_of_records(size_t header);
  bool start();
  bool next_pcap(packet_record& out);
  bool next_pcapng(packet_record& out);
  bool section_header(const unsigned char* block, uint32_t length);
  bool interface_description(const unsigned char* block, uint32_t length);
  uint64_t offset() const;

  int _fd = -1;
  bool _owned = false;
  std::unique_ptr<detail::capture_source> _source;
  std::unique_ptr<state> _state;
  capture_status _status = capture_status::reading;
  capture_format _format = capture_format::unknown;
  std::string _message;
  int _errno = 0;
  uint64_t _packets = 0;
};

}  // namespace faitra_host
