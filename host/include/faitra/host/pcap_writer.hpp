// Writing synthetic packet captures the way a capture writer does.
//
// A capture is a classic libpcap file: the 24-byte global header with the
// nanosecond magic 0xa1b23c4d (version 2.4, snaplen 65535, link type 1,
// Ethernet), in host byte order, followed by packet records whose
// timestamps strictly increase. Each packet is an Ethernet/IPv4/UDP frame
// of 60 to 1514 bytes from 10.0.0.1 to 10.0.0.2 with a pseudo-random
// payload; the file is exactly the requested size.
//
// write_capture_file creates the file (it must not exist), writes it and
// closes it; then reopens it for writing, sets the four capture attributes
// with fsetxattr and closes it again. The second close is what tells a
// watcher that the attributes are in place:
//   user.pcap_hash         FNV-1a 64 of the file's bytes, 16 lower-case hex digits
//   user.pcap_start_ts     first packet time, ns since the epoch
//   user.pcap_end_ts       last packet time, ns since the epoch
//   user.pcap_creation_ts  first packet time, whole seconds since the epoch
//
// Errors raise std::system_error carrying errno (ENOSPC when the file
// system is full); a file that could not be completed is removed.
//
// Thread-safety: pure functions over their own descriptors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace faitra_host {

// FNV-1a, 64-bit: the content hash of a capture.
class fnv1a64 {
 public:
  void update(const void* data, size_t size);
  uint64_t value() const { return _hash; }
  // 16 lower-case hex digits.
  std::string hex() const;

 private:
  uint64_t _hash = 0xcbf29ce484222325ULL;
};

constexpr uint32_t PCAP_MAGIC_NANOSECONDS = 0xa1b23c4d;
constexpr uint32_t PCAP_SNAPLEN = 65535;
constexpr uint32_t PCAP_LINKTYPE_ETHERNET = 1;
constexpr unsigned long PCAP_GLOBAL_HEADER_SIZE = 24;
constexpr unsigned long PCAP_RECORD_HEADER_SIZE = 16;
constexpr unsigned long MIN_FRAME_SIZE = 60;
constexpr unsigned long MAX_FRAME_SIZE = 1514;
// The smallest capture: the global header and one minimal packet.
constexpr unsigned long MIN_CAPTURE_SIZE = PCAP_GLOBAL_HEADER_SIZE + PCAP_RECORD_HEADER_SIZE + MIN_FRAME_SIZE;

struct capture_plan {
  unsigned long size = 1UL << 20;  // exact file size in bytes, at least MIN_CAPTURE_SIZE
  uint64_t first_ns = 0;           // time of the first packet
  uint64_t span_ns = 1000000000;   // packets are spread evenly over [first_ns, first_ns + span_ns)
};

struct capture_written {
  std::string path;
  unsigned long bytes = 0;
  unsigned long packets = 0;
  uint64_t first_ns = 0;
  uint64_t last_ns = 0;
  std::string hash;  // the value of user.pcap_hash
};

// Creates `path` (O_EXCL), writes the capture, sets the attributes.
capture_written write_capture_file(const std::string& path, const capture_plan& plan);

}  // namespace faitra_host
