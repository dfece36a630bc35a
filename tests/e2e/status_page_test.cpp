// The status page in a real browser: headless Chromium loads it from a
// daemon on a tmpfs until the numbers it shows are those of /v1/status, then
// takes a screenshot (build tree, artifacts/status-page.png) for CI to keep.
#include "daemon_harness.hpp"

#include <cstdio>
#include <cstdlib>

namespace {

using faitra_e2e::daemon_process;
using namespace std::chrono_literals;

constexpr unsigned long MiB = 1024 * 1024;

std::string find_chromium() {
  if (const char* given = std::getenv("FAITRA_CHROMIUM")) return given;
  for (const char* path : {"/usr/bin/chromium", "/usr/bin/chromium-browser"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  return "";
}

// Runs headless Chromium on `url` with `action` (--dump-dom, --screenshot=...)
// and gives its standard output.
std::string chromium(const std::string& binary, const std::string& profile, const std::string& action,
                     const std::string& url) {
  const std::string command = binary + " --headless --no-sandbox --disable-gpu --no-first-run --hide-scrollbars"
                              " --disable-dev-shm-usage --user-data-dir=" + profile +
                              " --window-size=1280,1180 --virtual-time-budget=4000 " + action + " '" + url +
                              "' 2>/dev/null";
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  ::pclose(pipe);
  return out;
}

std::string field(const std::string& name, const std::string& value) {
  return "data-field=\"" + name + "\" data-value=\"" + value + "\"";
}

TEST(StatusPageTest, ShowsTheNumbersOfTheStatusApiInABrowser) {
  const std::string browser = find_chromium();
  if (browser.empty()) GTEST_SKIP() << "no Chromium (apt-get install chromium, or set FAITRA_CHROMIUM)";
  FAITRA_E2E_TMPFS(fs, 64 * MiB);
  // An hour of captures, one a minute, with a quarter of an hour missing.
  const unsigned long base = 1700000000;
  unsigned long written = 0;
  for (unsigned long minute = 0; minute < 60; ++minute) {
    if (minute >= 20 && minute < 35) continue;
    const unsigned long n = base + minute * 60;
    faitra_test::write_capture(fs.file("c" + std::to_string(n) + ".pcap"), (256 + (minute % 7) * 64) * 1024,
                               faitra_e2e::attributes(n));
    ++written;
  }
  daemon_process d({"--root", fs.path(), "--trigger", "0.8", "--stop", "0.6", "--no-auto-cleanup",
                    "--reconcile-interval", "0"},
                   daemon_process::transport::tcp);
  ASSERT_TRUE(d.wait_ready());
  ASSERT_TRUE(faitra_test::wait_until([&] { return d.status_number({"captures"}) == static_cast<long>(written); }));

  const std::string url = "http://" + d.listen() + "/";
  faitra_test::temp_dir profile("faitra-chromium");
  std::string dom;
  std::string expected_used;
  const bool shown = faitra_test::wait_until(
      [&] {
        expected_used = std::to_string(d.status_number({"usage", "used"}));
        dom = chromium(browser, profile.path(), "--dump-dom", url);
        return dom.find(field("captures", std::to_string(written))) != std::string::npos &&
               dom.find(field("used", expected_used)) != std::string::npos &&
               dom.find(field("oldest_start", std::to_string(base * 1000000000UL))) != std::string::npos;
      },
      180s);
  ASSERT_TRUE(shown) << "used " << expected_used << "; the page's DOM:\n" << dom;
  EXPECT_NE(dom.find(field("counter.cleanup.runs", "0")), std::string::npos);
  EXPECT_NE(dom.find("class=\"gap\""), std::string::npos) << "the missing quarter of an hour is not marked";

  const std::string shot = std::string(FAITRA_ARTIFACT_DIR) + "/status-page.png";
  std::remove(shot.c_str());
  chromium(browser, profile.path(), "--screenshot=" + shot, url);
  EXPECT_EQ(faitra_e2e::read_text(shot).substr(0, 4), "\x89PNG") << "no screenshot at " << shot;
}

}  // namespace
