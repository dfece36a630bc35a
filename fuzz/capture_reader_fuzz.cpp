// Reads the input as a capture file (from an in-memory file), packet by
// packet and as a summary.
//
// Allowed outcomes: any status; nothing thrown. Properties: the walk ends
// (status no longer `reading`) after at most one packet per 12 decoded
// bytes; every packet's bytes are readable (the sanitizer checks them);
// the cursor and the summary agree on the count and the status; a summary
// that ended cleanly has a 32-digit hash of every input byte.
#include "fuzz_check.hpp"

#include <faitra/host/capture_reader.hpp>
#include <faitra/host/capture_summary.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = ::memfd_create("capture", MFD_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  FUZZ_CHECK(::write(fd, data, size) == static_cast<ssize_t>(size));
  FUZZ_CHECK(::lseek(fd, 0, SEEK_SET) == 0);

  uint64_t packets = 0;
  uint64_t decoded_records = 0;
  faitra_host::capture_status status;
  {
    faitra_host::capture_cursor cursor(::dup(fd), true);
    faitra_host::packet_record p;
    unsigned sum = 0;
    while (cursor.next(p)) {
      FUZZ_CHECK(p.caplen <= faitra_host::capture_cursor::MAX_RECORD);
      for (uint32_t i = 0; i < p.caplen; ++i) sum += p.data[i];
      ++packets;
      decoded_records += 12 + p.caplen;
    }
    (void)sum;
    status = cursor.status();
    FUZZ_CHECK(status != faitra_host::capture_status::reading);
    FUZZ_CHECK(cursor.packets() == packets);
    if (!cursor.compressed()) FUZZ_CHECK(decoded_records <= size);
  }

  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const faitra_host::capture_summary s = faitra_host::summarise_capture(path);
  FUZZ_CHECK(s.status == status);
  FUZZ_CHECK(s.packets == packets);
  if (s.status == faitra_host::capture_status::end) {
    FUZZ_CHECK(s.hash == faitra_host::xxh3_128_hex(data, size));
    FUZZ_CHECK(s.bytes == size);
  }
  ::close(fd);
  return 0;
}
