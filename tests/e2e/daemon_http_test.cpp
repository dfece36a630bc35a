// The daemon's HTTP handling, on raw requests to the real binary: requests
// without a body, the token's scheme and headers, NUL bytes, /healthz,
// lookup by key, the token reloaded on SIGHUP, and names that are not UTF-8.
#include "daemon_harness.hpp"

#include <faitra/host/escaped_bytes.hpp>

#include <sys/un.h>

namespace {

using faitra_e2e::daemon_process;
using faitra_e2e::reply;

constexpr unsigned long MiB = 1024 * 1024;

// Sends `request` as it is on the daemon's Unix socket; the answer's status,
// or 0.
int raw_status(const daemon_process& d, const std::string& request) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  d.socket_path().copy(address.sun_path, sizeof address.sun_path - 1);
  const timeval limit{60, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  std::string answer;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
    char buffer[256];
    for (ssize_t n; answer.find("\r\n") == std::string::npos && (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
      answer.append(buffer, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  return answer.rfind("HTTP/1.1 ", 0) == 0 ? std::stoi(answer.substr(9, 3)) : 0;
}

TEST(DaemonHttp, RequestsAreReadAsHttpSaysAndTheTokenReloadsOnSighup) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  faitra_test::write_capture(fs.file("a.pcap"), 4096, faitra_e2e::attributes(1));
  faitra_test::temp_dir scratch("faitra-e2e-http");
  const std::string token_file = scratch.file("token");
  faitra_e2e::write_text(token_file, "s3cret\n", 0600);
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup", "--token-file", token_file});
  ASSERT_TRUE(d.wait_ready("s3cret"));

  const std::string auth = "Authorization: Bearer s3cret\r\n";
  const auto request = [](const std::string& line, const std::string& headers, const std::string& body = "") {
    return line + " HTTP/1.1\r\nHost: faitra\r\n" + headers +
           (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body;
  };
  const std::vector<std::pair<std::string, int>> cases = {
      {request("POST /v1/reconcile", auth), 200},  // no Content-Length: an empty body
      {request("POST /v1/status", auth), 405},
      {request("POST /v1/nothing", auth), 404},
      {request("GET /v1/status", "Authorization: bearer s3cret\r\n"), 200},
      {request("GET /v1/status", "AUTHORIZATION: BEARER s3cret\r\n"), 200},
      {request("GET /v1/status", auth + auth), 400},
      {request("GET /v1/status", std::string("Authorization: Bearer s3cret\0x\r\n", 32)), 400},
      {request("GET /v1/status", "Authorization: Bearer s3cre\r\n"), 401},
      {request("GET /v1/status", "Authorization: Basic s3cret\r\n"), 401},
      {request("GET /v1/status", ""), 401},
      {request("GET /healthz", ""), 200},
      {request("POST /v1/cleanup/age", auth, R"({"mode": "files\u0000x", "cutoff": 1})"), 400},
      {request("GET /v1/captures/lookup?path=" + fs.file("a.pcap") + "%00", auth), 400},
      {request("GET /v1/captures/lookup?key=h1", auth), 200},
      {request("GET /v1/captures/lookup?key=h2", auth), 404},
      {request("GET /v1/captures/lookup?key=h1&path=" + fs.file("a.pcap"), auth), 400},
  };
  for (const auto& [text, status] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(raw_status(d, text), status);
  }
  EXPECT_TRUE(faitra_e2e::exists(fs.file("a.pcap")));

  faitra_e2e::write_text(token_file, "n3w\n", 0600);
  ASSERT_EQ(::kill(d.pid(), SIGHUP), 0);
  ASSERT_TRUE(d.wait_log("Received SIGHUP; reloaded the token from " + token_file));
  EXPECT_EQ(d.request("GET", "/v1/status", "", faitra_e2e::bearer("s3cret")).status, 401);
  EXPECT_EQ(d.request("GET", "/v1/status", "", faitra_e2e::bearer("n3w")).status, 200);
  EXPECT_EQ(d.stop(), 0);
}

TEST(DaemonHttp, NamesThatAreNotUtf8AreEscapedAndAcceptedBack) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  const std::string odd = fs.file("odd\xff\xfe\xed\xb3\xbf.pcap");  // the last three bytes: not UTF-8 either
  faitra_test::write_capture(odd, 4096, faitra_e2e::attributes(1, "key\xff"));
  faitra_test::write_capture(fs.file("plain.pcap"), 4096, faitra_e2e::attributes(2));
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup"});
  ASSERT_TRUE(d.wait_ready());

  const auto strictly_parsed = [](const std::string& json) {
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseValidateEncodingFlag>(json.c_str());
    EXPECT_FALSE(doc.HasParseError()) << json;
    return doc;
  };
  const reply list = d.request("GET", "/v1/captures");
  EXPECT_NE(list.body.find("odd\\udcff\\udcfe\\udced\\udcb3\\udcbf.pcap"), std::string::npos) << list.body;
  const rapidjson::Document doc = strictly_parsed(list.body);
  ASSERT_EQ(doc["captures"].Size(), 2U);
  const std::string decoded = doc["captures"][0]["path"].GetString();  // as a client's parser gives it
  EXPECT_EQ(faitra_host::restore_escaped_bytes(decoded), odd);
  std::istringstream scanned(faitra_e2e::run({"scan", fs.path()}).out);
  for (std::string line; std::getline(scanned, line);) strictly_parsed(line);

  const auto lookup = [&](const std::string& name, const std::string& value) {
    return d.request("GET", httplib::append_query_params("/v1/captures/lookup", {{name, value}}));
  };
  EXPECT_EQ(lookup("path", odd).status, 200);  // the bytes as they are
  EXPECT_EQ(lookup("key", "key\xed\xb3\xbf").status, 200);  // the escaped form as RapidJSON decodes it
  const reply missing = lookup("path", odd + "x");
  EXPECT_EQ(missing.status, 404);
  strictly_parsed(missing.body);
  const reply marked = d.request("DELETE", httplib::append_query_params("/v1/captures", {{"path", decoded}}));
  EXPECT_EQ(marked.body, "{\"marked\":true}");
  EXPECT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(odd); }));
  EXPECT_EQ(d.stop(), 0);
}

}  // namespace
