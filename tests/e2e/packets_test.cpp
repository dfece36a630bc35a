// Packets for a time window (GET /v1/packets, faitra extract) against
// tcpdump as the oracle: captures that tcpdump wrote (loopback traffic,
// retimed so that their ranges overlap and touch), windows that cut through
// them, and the answer compared packet by packet, in order, with
// `tcpdump -r` on each overlapping capture with the same filter, clipped to
// the window and merged by time. Then the edges: bad filters, mixed link
// types, limits, the concurrency cap, a client that leaves, a capture
// deleted while it is read.
#include "daemon_harness.hpp"
#include "support/captures.hpp"

#include <faitra/host/capture_overlap.hpp>
#include <faitra/host/capture_reader.hpp>
#include <faitra/host/capture_summary.hpp>
#include <faitra/host/pcap_writer.hpp>

#include <dirent.h>
#include <pcap/dlt.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <random>
#include <thread>

namespace {

using faitra_e2e::daemon_process;
using namespace faitra_test;
using namespace std::chrono_literals;

constexpr uint64_t T0 = 1700000000123456789ULL;
constexpr uint64_t S = 1000000000ULL;
constexpr uint32_t ETHERNET = 1;
constexpr uint32_t RAW_IP = 101;

struct capture_file {
  std::string name;
  uint32_t link_type;
  uint64_t first;  // time of packet 0
  size_t from;     // loopback packets [from, to), one second apart
  size_t to;
  bool attributes = true;
};

// A and B overlap, C starts on B's last nanosecond, D has no attributes, E
// (raw IP) and F overlap elsewhere; "big" is large, for the streaming cases.
const std::vector<capture_file> FILES = {
    {"a.pcap", ETHERNET, T0, 0, 20},
    {"b.pcap", ETHERNET, T0 + 10 * S + S / 2, 20, 40},
    {"c.pcap", ETHERNET, T0 + 29 * S + S / 2, 40, 60},
    {"d.pcap", ETHERNET, T0 + 5 * S, 0, 10, false},
    {"e.pcap", RAW_IP, T0 + 100 * S, 0, 10},
    {"f.pcap", ETHERNET, T0 + 100 * S + S / 3, 10, 20},
};

std::string u32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

// Writes each capture as a nanosecond pcap, has tcpdump rewrite it, and sets
// the capture attributes from what libpcap reads back.
std::string make_captures(const std::string& dir) {
  const std::string loopback = dir + "/loopback.pcap";
  const std::string why = capture_loopback(loopback, 60, true);
  if (!why.empty()) return why;
  int link_type = 0;
  std::string error;
  const std::vector<oracle_packet> packets = libpcap_packets(loopback, link_type, error);
  if (packets.size() < 60 || link_type != 1) return "loopback capture unusable: " + error;
  for (const capture_file& f : FILES) {
    std::string pcap = u32(0xa1b23c4d) + u32(0x00040002) + u32(0) + u32(0) + u32(262144) + u32(f.link_type);
    for (size_t i = f.from; i < f.to; ++i) {
      const uint64_t ts = f.first + (i - f.from) * S;
      const size_t skip = f.link_type == RAW_IP ? 14 : 0;
      pcap += u32(static_cast<uint32_t>(ts / S)) + u32(static_cast<uint32_t>(ts % S)) +
              u32(packets[i].caplen - skip) + u32(packets[i].origlen - skip) + packets[i].bytes.substr(skip);
    }
    write_bytes(dir + "/crafted", pcap);
    const std::string path = dir + "/" + f.name;
    if (std::system(("tcpdump -r " + dir + "/crafted --time-stamp-precision=nano -w " + path + " 2>/dev/null").c_str()) != 0) {
      return "tcpdump cannot rewrite a capture";
    }
    if (f.attributes) {
      set_capture_attributes(path, {f.name, f.first, f.first + (f.to - f.from - 1) * S, static_cast<long>(f.first / S)});
    }
  }
  ::unlink(loopback.c_str());
  ::unlink((dir + "/crafted").c_str());
  return "";
}

// One packet as comparable text; the bytes by their hash.
std::string text(uint64_t ts, uint32_t caplen, uint32_t origlen, const std::string& bytes, uint32_t link = 0) {
  return std::to_string(ts) + " " + std::to_string(caplen) + " " + std::to_string(origlen) + " " +
         std::to_string(link) + " " + faitra_host::xxh3_128_hex(bytes.data(), bytes.size());
}

// What tcpdump gives: `tcpdump -r` with the filter on every capture with
// attributes that overlaps the window, clipped to it, merged by time (ties
// in capture order). `selected` counts those captures.
std::vector<std::string> oracle(const std::string& dir, const std::string& scratch, uint64_t start, uint64_t end, const std::string& filter,
                                size_t& selected, bool with_link = false) {
  std::vector<const capture_file*> files;
  for (const capture_file& f : FILES) {
    const uint64_t last = f.first + (f.to - f.from - 1) * S;
    if (f.attributes && f.first <= end && last >= start) files.push_back(&f);
  }
  std::stable_sort(files.begin(), files.end(), [](auto* a, auto* b) { return a->first < b->first; });
  selected = files.size();
  std::vector<std::pair<uint64_t, std::string>> merged;
  for (const capture_file* f : files) {
    const std::string out = scratch + "/oracle.pcap";
    const std::string command = "tcpdump -r " + dir + "/" + f->name + " --time-stamp-precision=nano -w " + out +
                                " '" + filter + "' 2>/dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    int link_type = 0;
    std::string error;
    const std::vector<oracle_packet> packets = libpcap_packets(out, link_type, error);
    if (link_type == DLT_RAW) link_type = RAW_IP;  // libpcap names it by its DLT value
    for (const oracle_packet& p : packets) {
      if (p.ts_ns < start || p.ts_ns > end) continue;
      merged.emplace_back(p.ts_ns, text(p.ts_ns, p.caplen, p.origlen, p.bytes, with_link ? link_type : 0));
    }
  }
  std::stable_sort(merged.begin(), merged.end(), [](auto& a, auto& b) { return a.first < b.first; });
  std::vector<std::string> out;
  for (auto& m : merged) out.push_back(std::move(m.second));
  return out;
}

// The packets of a capture file as the host's reader sees them.
std::vector<std::string> packets_of(const std::string& path, bool with_link = false) {
  faitra_host::capture_cursor cursor(path);
  faitra_host::packet_record p;
  std::vector<std::string> out;
  while (cursor.next(p)) {
    out.push_back(text(p.ts_ns, p.caplen, p.origlen, std::string(reinterpret_cast<const char*>(p.data), p.caplen),
                       with_link ? p.link_type : 0));
  }
  EXPECT_EQ(cursor.status(), faitra_host::capture_status::end);
  return out;
}

std::string query(uint64_t start, uint64_t end, const std::string& extra = "") {
  return "/v1/packets?start=" + std::to_string(start) + "&end=" + std::to_string(end) + extra;
}

class PacketsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    _dir = new temp_dir("faitra-e2e-packets");
    _skip = make_captures(_dir->path());
  }
  static void TearDownTestSuite() {
    delete _dir;
    _dir = nullptr;
  }
  void SetUp() override {
    if (!_skip.empty()) GTEST_SKIP() << _skip;
    // d.pcap stays without times: derivation would give it some.
    _daemon = std::make_unique<daemon_process>(std::vector<std::string>{
        "--root", _dir->path(), "--no-auto-cleanup", "--reconcile-interval", "0", "--no-derive-metadata"});
    ASSERT_TRUE(_daemon->wait_ready());
  }

  httplib::Result get(const std::string& target, httplib::ContentReceiver receiver = nullptr) const {
    httplib::Client client(_daemon->socket_path());
    client.set_address_family(AF_UNIX);
    client.set_read_timeout(60s);
    if (receiver) return client.Get(target, receiver);
    return client.Get(target);
  }

  // The answer's packets, read with libpcap (classic pcap) or the host's
  // reader (pcapng, which libpcap reads only with one link type).
  std::vector<std::string> answer(const std::string& body, bool pcapng = false) const {
    const std::string path = _daemon->scratch("answer.pcap");
    write_bytes(path, body);
    if (pcapng) return packets_of(path, true);
    int link_type = 0;
    std::string error;
    std::vector<std::string> out;
    for (const oracle_packet& p : libpcap_packets(path, link_type, error)) {
      out.push_back(text(p.ts_ns, p.caplen, p.origlen, p.bytes));
    }
    EXPECT_EQ(error, "");
    return out;
  }

  static temp_dir* _dir;
  static std::string _skip;
  std::unique_ptr<daemon_process> _daemon;
};

temp_dir* PacketsTest::_dir = nullptr;
std::string PacketsTest::_skip;

TEST_F(PacketsTest, WindowsEqualTcpdumpOnTheOverlappingCaptures) {
  struct window {
    uint64_t start, end;
    std::string filter;
  };
  const std::vector<window> windows = {
      {T0, T0 + 60 * S, ""},                            // everything; B's last and C's first share a time
      {T0 + 5 * S + S / 2, T0 + 12 * S, "greater 300"},  // starts inside A, which began before it
      {T0 + 29 * S + S / 2, T0 + 29 * S + S / 2, ""},   // one nanosecond: B's last, then C's first
      {T0 + 15 * S + 7, T0 + 35 * S, "udp and less 500"},
      {T0 - 60 * S, T0 - 1, ""},  // before every capture: an empty pcap
  };
  for (const window& w : windows) {
    SCOPED_TRACE(std::to_string(w.start - T0) + " " + w.filter);
    size_t selected = 0;
    const std::vector<std::string> expected = oracle(_dir->path(), _daemon->scratch(""), w.start, w.end, w.filter, selected);
    const auto r = get(query(w.start, w.end, w.filter.empty() ? "" : "&filter=" + httplib::detail::encode_query_param(w.filter)));
    ASSERT_TRUE(r);
    ASSERT_EQ(r->status, 200) << r->body;
    EXPECT_EQ(r->get_header_value("Content-Type"), "application/vnd.tcpdump.pcap");
    EXPECT_EQ(r->get_header_value("X-Faitra-Captures-Selected"), std::to_string(selected));
    EXPECT_EQ(r->get_header_value("X-Faitra-Captures-Skipped"), "1");  // d.pcap, without attributes
    EXPECT_EQ(answer(r->body), expected);
    if (expected.empty()) {
      EXPECT_EQ(r->body.size(), 24U);
    }
  }
  // faitra extract gives the same file through the daemon and from the
  // directory alone (which also reads d.pcap's times from its packets).
  const auto r = get(query(T0 + 15 * S + 7, T0 + 35 * S, "&filter=greater%20200"));
  const std::string via_daemon = _daemon->scratch("via-daemon.pcap");
  const std::string via_dir = _daemon->scratch("via-dir.pcap");
  for (const auto& args : {std::vector<std::string>{"--listen", _daemon->listen(), "-w", via_daemon},
                           std::vector<std::string>{"--dir", _dir->path(), "-w", via_dir}}) {
    std::vector<std::string> full = {"extract", "--start", std::to_string(T0 + 15 * S + 7), "--end",
                                     std::to_string(T0 + 35 * S), "--filter", "greater 200"};
    full.insert(full.end(), args.begin(), args.end());
    const auto run = faitra_e2e::run(full);
    EXPECT_EQ(run.status, 0) << run.err;
  }
  EXPECT_EQ(read_bytes(via_daemon), r->body);
  EXPECT_EQ(read_bytes(via_dir), r->body);
}

TEST_F(PacketsTest, RefusesBeforeTheFirstByteAndLeavesNothingBehind) {
  const auto bad = get(query(T0, T0 + S, "&filter=udp%20and%20and"));
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_NE(bad->body.find("filter: can't parse filter expression: syntax error"), std::string::npos)
      << bad->body;  // libpcap's words
  for (const std::string& target : {query(T0 + S, T0), std::string("/v1/packets?start=5"), query(T0, T0, "&limit_packets=0")}) {
    EXPECT_EQ(get(target)->status, 400) << target;
  }
  const std::string target = _daemon->scratch("out.pcap");
  const auto run = faitra_e2e::run({"extract", "--dir", _dir->path(), "--start", std::to_string(T0), "--end",
                                    std::to_string(T0 + S), "--filter", "nonsense", "-w", target});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("--filter:"), std::string::npos) << run.err;
  size_t entries = 0;
  DIR* d = ::opendir(_daemon->scratch("").c_str());
  while (const dirent* e = ::readdir(d)) entries += std::strstr(e->d_name, "out.pcap") != nullptr ? 1 : 0;
  ::closedir(d);
  EXPECT_EQ(entries, 0U);  // neither the file nor its temporary
}

TEST_F(PacketsTest, MixedLinkTypesGivePcapngAndLimitsCut) {
  size_t selected = 0;
  const std::vector<std::string> expected = oracle(_dir->path(), _daemon->scratch(""), T0 + 90 * S, T0 + 200 * S, "udp", selected, true);
  const auto r = get(query(T0 + 90 * S, T0 + 200 * S, "&filter=udp"));
  ASSERT_EQ(r->status, 200) << r->body;
  EXPECT_EQ(r->get_header_value("Content-Type"), "application/x-pcapng");
  EXPECT_EQ(answer(r->body, true), expected);
  ASSERT_EQ(expected.size(), 20U);

  const std::vector<std::string> all = oracle(_dir->path(), _daemon->scratch(""), T0, T0 + 60 * S, "", selected);
  const auto three = get(query(T0, T0 + 60 * S, "&limit_packets=3"));
  EXPECT_EQ(answer(three->body), std::vector<std::string>(all.begin(), all.begin() + 3));
  // The byte limit keeps every packet that fits whole: the header and two.
  const size_t two = 24 + 2 * 16 + std::stoul(all[0].substr(all[0].find(' ') + 1)) +
                     std::stoul(all[1].substr(all[1].find(' ') + 1));
  const auto cut = get(query(T0, T0 + 60 * S, "&limit_bytes=" + std::to_string(two + 15)));
  EXPECT_EQ(cut->body.size(), two);
  EXPECT_EQ(answer(cut->body), std::vector<std::string>(all.begin(), all.begin() + 2));
}

// A retrieval whose client stops reading after its first bytes until told
// to read on or to hang up.
struct stalled {
  explicit stalled(std::function<void(httplib::ContentReceiver)> get) {
    worker = std::thread([this, get] {
      get([this](const char* data, size_t size) {
        body.append(data, size);
        if (!waited) {
          waited = true;
          got = true;
          read_on = resume.get_future().get();
        }
        return read_on;
      });
    });
  }
  void finish(bool on) {
    resume.set_value(on);
    worker.join();
  }
  std::promise<bool> resume;
  std::atomic<bool> got{false};
  bool waited = false;
  bool read_on = true;
  std::string body;
  std::thread worker;
};

// The daemon's open descriptors (what they lead to) and threads.
std::pair<std::vector<std::string>, size_t> resources(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  std::vector<std::string> fds;
  size_t threads = 0;
  if (DIR* d = ::opendir((proc + "/fd").c_str())) {
    while (const dirent* e = ::readdir(d)) {
      char target[4096] = {};
      if (e->d_name[0] != '.' && ::readlink((proc + "/fd/" + e->d_name).c_str(), target, sizeof target - 1) > 0) {
        fds.emplace_back(target);
      }
    }
    ::closedir(d);
  }
  if (DIR* d = ::opendir((proc + "/task").c_str())) {
    while (const dirent* e = ::readdir(d)) threads += e->d_name[0] != '.' ? 1 : 0;
    ::closedir(d);
  }
  return {fds, threads};
}

TEST_F(PacketsTest, CapAndDisconnectAndACaptureDeletedWhileRead) {
  const std::string big = _dir->file("big.pcap");
  faitra_host::capture_plan plan;
  plan.size = 24UL << 20;
  plan.first_ns = T0 + 1000 * S;
  faitra_host::write_capture_file(big, plan);
  const std::string original = read_bytes(big);
  ASSERT_TRUE(wait_until([&] { return _daemon->request("GET", "/v1/captures/lookup?path=" + big).status == 200; }));
  const auto baseline = resources(_daemon->pid());  // descriptors, threads

  const std::string whole = query(T0 + 1000 * S, T0 + 1002 * S);
  auto fetch = [&](httplib::ContentReceiver r) { get(whole, r); };
  stalled reader(fetch), leaver(fetch);
  ASSERT_TRUE(wait_until([&] { return reader.got && leaver.got; }));
  const auto refused = get(whole);
  EXPECT_EQ(refused->status, 503);
  EXPECT_EQ(refused->get_header_value("Retry-After"), "1");

  // Deleted through the daemon (as a cleanup does) while both hold it open.
  EXPECT_EQ(_daemon->request("DELETE", "/v1/captures?path=" + big).status, 200);
  EXPECT_TRUE(wait_until([&] { return !faitra_e2e::exists(big); }));
  leaver.finish(false);
  reader.finish(true);
  EXPECT_TRUE(reader.body.size() > 24 && reader.body.substr(24) == original.substr(24))
      << reader.body.size() << " of " << original.size() << " bytes";
  // Nothing of either retrieval stays: no descriptor, no thread, its place
  // at the gate.
  EXPECT_TRUE(wait_until([&] {
    const auto [now_fds, now_threads] = resources(_daemon->pid());
    const bool open = std::any_of(now_fds.begin(), now_fds.end(), [](auto& f) { return f.find("big.pcap") != f.npos; });
    return !open && now_fds.size() <= baseline.first.size() && now_threads <= baseline.second;
  }));
  EXPECT_TRUE(wait_until([&] { return get(whole)->status == 200; }));
}

// The overlap selection's two walks (whichever ends first answers) against
// a plain scan, on a catalogue with time-deleted leftovers in its end index.
TEST(CaptureOverlap, BothWalksGiveThePlainAnswer) {
  csl::fs_cache cache;
  std::mt19937_64 random(7);
  for (int i = 0; i < 400; ++i) {
    auto e = std::make_shared<csl::fs_entry>("/c/" + std::to_string(i));
    const unsigned long start = random() % 10000;
    e->start_ts = start;
    if (i % 50 != 0) e->end_ts = start + random() % 300;
    cache.insert(std::move(e));
  }
  cache.delete_by_time(nullptr, 2000, 2500);
  for (const auto& [s, e] : std::vector<std::pair<uint64_t, uint64_t>>{{0, 10}, {100, 9900}, {9000, 20000}, {2100, 2400}, {5000, 5000}}) {
    std::vector<std::string> plain;
    for (const auto& r : cache.path_cache()) {
      if (!r->end_ts.is_null() && *r->start_ts <= e && *r->end_ts >= s) plain.push_back(r->path);
    }
    std::vector<std::string> walked;
    for (const auto& r : faitra_host::select_overlapping(cache, s, e).captures) walked.push_back(r.path);
    std::sort(walked.begin(), walked.end());
    EXPECT_EQ(walked, plain) << s << "-" << e;
  }
}

}  // namespace
