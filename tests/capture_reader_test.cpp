// The capture reader against libpcap and xxh128sum, on files tcpdump wrote
// on loopback and on the other layouts made from their packets.
#include <faitra/host/capture_reader.hpp>
#include <faitra/host/capture_summary.hpp>

#include "support/captures.hpp"
#include "support/files.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

using faitra_host::capture_status;
using namespace faitra_test;

// The nanosecond capture `times` over, each copy one second later: several
// MiB, so records straddle the reader's blocks.
std::string repeat_pcap(const std::string& pcap, unsigned times) {
  std::string out = pcap.substr(0, 24);
  for (unsigned t = 0; t < times; ++t) {
    for (size_t at = 24; at + 16 <= pcap.size();) {
      uint32_t seconds, caplen;
      std::memcpy(&seconds, pcap.data() + at, 4);
      std::memcpy(&caplen, pcap.data() + at + 8, 4);
      seconds += t;
      out.append(reinterpret_cast<const char*>(&seconds), 4);
      out.append(pcap, at + 4, 12 + caplen);
      at += 16 + caplen;
    }
  }
  return out;
}

class CaptureReader : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = std::make_unique<temp_dir>("faitra-reader");
    const std::string nano = dir->file("nano.pcap");
    skip_reason = capture_loopback(nano, 24, true);
    if (!skip_reason.empty()) return;
    if (command_output("tcpdump -r " + nano + " -w " + dir->file("micro.pcap") + " 2>/dev/null; echo ok").empty()) {
      skip_reason = "tcpdump -r -w failed";
    }
  }
  static void TearDownTestSuite() { dir.reset(); }
  void SetUp() override {
    if (!skip_reason.empty()) GTEST_SKIP() << "no tcpdump capture on loopback: " << skip_reason;
  }
  static std::string file(const std::string& name) { return dir->file(name); }

  static std::unique_ptr<temp_dir> dir;
  static std::string skip_reason;
};
std::unique_ptr<temp_dir> CaptureReader::dir;
std::string CaptureReader::skip_reason;

std::string xxh128sum(const std::string& path) {
  const std::string out = command_output("xxh128sum " + path);
  return out.substr(0, out.find(' '));
}

TEST_F(CaptureReader, EveryLayoutYieldsLibpcapsPacketsAndTheSummaryAgrees) {
  const std::string nano = read_bytes(file("nano.pcap"));
  const std::string long_nano = repeat_pcap(nano, 400);
  write_bytes(file("long.pcap"), long_nano);
  write_bytes(file("swapped.pcap"), swap_pcap(nano));
  write_bytes(file("little.pcapng"), pcap_to_pcapng(long_nano, false));
  write_bytes(file("big.pcapng"), pcap_to_pcapng(nano, true));
  write_bytes(file("cut.pcap"), nano.substr(0, nano.size() - 7));
  ASSERT_FALSE(command_output("lz4 -q -f " + file("long.pcap") + " " + file("long.pcap.lz4") + " 2>/dev/null && lz4 -q -f " +
                              file("little.pcapng") + " " + file("little.pcapng.lz4") + " 2>/dev/null && echo ok")
                   .empty());

  struct row {
    std::string name;
    std::string oracle;  // the same packets, for libpcap
    capture_status ends;
    faitra_host::capture_format format;
  };
  const std::vector<row> rows{
      {"nano.pcap", "nano.pcap", capture_status::end, faitra_host::capture_format::pcap},
      {"micro.pcap", "micro.pcap", capture_status::end, faitra_host::capture_format::pcap},
      {"swapped.pcap", "swapped.pcap", capture_status::end, faitra_host::capture_format::pcap},
      {"long.pcap", "long.pcap", capture_status::end, faitra_host::capture_format::pcap},
      {"little.pcapng", "little.pcapng", capture_status::end, faitra_host::capture_format::pcapng},
      {"big.pcapng", "big.pcapng", capture_status::end, faitra_host::capture_format::pcapng},
      {"long.pcap.lz4", "long.pcap", capture_status::end, faitra_host::capture_format::pcap},
      {"little.pcapng.lz4", "little.pcapng", capture_status::end, faitra_host::capture_format::pcapng},
      {"cut.pcap", "cut.pcap", capture_status::truncated, faitra_host::capture_format::pcap},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    int link_type = -1;
    std::string libpcap_error;
    const std::vector<oracle_packet> expected = libpcap_packets(file(r.oracle), link_type, libpcap_error);
    ASSERT_GT(expected.size(), 8U) << libpcap_error;
    EXPECT_EQ(libpcap_error.empty(), r.ends == capture_status::end) << libpcap_error;

    faitra_host::capture_cursor cursor(file(r.name));
    faitra_host::packet_record p;
    size_t i = 0;
    for (; cursor.next(p); ++i) {
      ASSERT_LT(i, expected.size());
      EXPECT_EQ(p.ts_ns, expected[i].ts_ns) << "packet " << i;
      EXPECT_EQ(p.caplen, expected[i].caplen) << "packet " << i;
      EXPECT_EQ(p.origlen, expected[i].origlen) << "packet " << i;
      EXPECT_TRUE(std::string(reinterpret_cast<const char*>(p.data), p.caplen) == expected[i].bytes) << "packet " << i;
      EXPECT_EQ(p.link_type, static_cast<uint32_t>(link_type));
    }
    EXPECT_EQ(i, expected.size());
    EXPECT_EQ(cursor.status(), r.ends) << cursor.message();
    EXPECT_EQ(cursor.format(), r.format);

    const faitra_host::capture_summary s = faitra_host::summarise_capture(file(r.name));
    uint64_t low = UINT64_MAX, high = 0;
    for (const oracle_packet& o : expected) {
      if (o.ts_ns == 0) continue;  // the simple packet block has no time
      low = std::min(low, o.ts_ns);
      high = std::max(high, o.ts_ns);
    }
    EXPECT_TRUE(s.usable()) << s.message;
    EXPECT_EQ(s.packets, expected.size());
    EXPECT_EQ(s.start_ns, low);
    EXPECT_EQ(s.end_ns, high);
    EXPECT_EQ(s.link_type, static_cast<uint32_t>(link_type));
    EXPECT_EQ(s.hash, xxh128sum(file(r.name)));
    EXPECT_EQ(s.bytes, read_bytes(file(r.name)).size());
  }
}

TEST_F(CaptureReader, DamagedAndForeignFilesEndWithAClearStatus) {
  const std::string nano = read_bytes(file("nano.pcap"));
  uint32_t first_caplen;
  std::memcpy(&first_caplen, nano.data() + 24 + 8, 4);
  std::string huge_record = nano;  // the second record claims 4 GiB
  std::memset(huge_record.data() + 24 + 16 + first_caplen + 8, 0xff, 4);
  std::string big_packet = nano.substr(0, 24 + 16 + first_caplen);  // then a 3 MiB record
  const uint32_t three_mib = 3U << 20;
  big_packet += nano.substr(24, 8);
  big_packet.append(reinterpret_cast<const char*>(&three_mib), 4).append(reinterpret_cast<const char*>(&three_mib), 4);
  big_packet.append(three_mib, 'x');
  std::string bad_trailer = pcap_to_pcapng(nano, false);
  bad_trailer[bad_trailer.size() - 1] ^= 0x40;
  write_bytes(file("text.pcap"), "GET / HTTP/1.1\r\nHost: example\r\n\r\n");
  write_bytes(file("empty.pcap"), "");
  write_bytes(file("huge.pcap"), huge_record);
  write_bytes(file("big-packet.pcap"), big_packet);
  write_bytes(file("trailer.pcapng"), bad_trailer);
  std::string lz4 = command_output("lz4 -q -c " + file("nano.pcap"));
  ASSERT_GT(lz4.size(), 100U);
  lz4[6] ^= 0x5a;  // the frame descriptor's checksum
  write_bytes(file("damaged.pcap.lz4"), lz4);

  struct row {
    std::string name;
    capture_status ends;
    uint64_t packets;
    bool usable;
  };
  const size_t all = 24;
  const std::vector<row> rows{
      {"text.pcap", capture_status::not_a_capture, 0, false},
      {"empty.pcap", capture_status::not_a_capture, 0, false},
      {"huge.pcap", capture_status::malformed, 1, true},
      {"big-packet.pcap", capture_status::end, 2, true},
      {"trailer.pcapng", capture_status::malformed, all - 1, true},
      {"damaged.pcap.lz4", capture_status::read_failed, 0, false},
      {"missing.pcap", capture_status::read_failed, 0, false},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    const faitra_host::capture_summary s = faitra_host::summarise_capture(file(r.name));
    EXPECT_EQ(s.status, r.ends) << s.message;
    EXPECT_FALSE(s.message.empty() && r.ends != capture_status::end);
    EXPECT_EQ(s.packets, r.packets);
    EXPECT_EQ(s.usable(), r.usable);
    EXPECT_EQ(s.hash.empty(), !r.usable);
  }
}

}  // namespace
