// The link types a capture file declares before its first packet, read with
// one pread(2) of its first bytes (the descriptor's offset does not move).
//
// Classic pcap: the header's link type. pcapng: the link type of every
// interface block before the first packet block. Anything else (an LZ4
// frame, a pcapng file whose interfaces lie beyond the bytes read, a file
// that is no capture) gives nullopt, and the caller asks a capture cursor.
//
// Thread-safety: pure function over the caller's descriptor.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace faitra_host::detail {

std::optional<std::vector<uint32_t>> probe_link_types(int fd);

}  // namespace faitra_host::detail
