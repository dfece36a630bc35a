// `faitra serve --config FILE --check-config`: which value wins, and the
// errors a bad file gives, each naming the file's line and key.
#include "daemon_harness.hpp"

namespace {

struct config_case {
  const char* file;                // the TOML file; ROOT stands for an existing directory
  std::vector<std::string> args;   // more command-line arguments
  int status;                      // exit status
  const char* expected;            // in standard output (status 0) or standard error
};

TEST(ConfigFileTest, CommandLineWinsAndErrorsNameTheKeyAndLine) {
  faitra_test::temp_dir dir("faitra-config");
  const std::vector<config_case> cases = {
      {"root = 'ROOT'\ntrigger = 0.95\nstop = 0.5\n", {}, 0, "trigger = 0.95\nstop = 0.5\n"},
      {"root = 'ROOT'\ntrigger = 0.95\n", {"--trigger", "0.7"}, 0, "trigger = 0.7\n"},
      {"root = 'ROOT'\nsuffix = ['.cap', '.pcap']\n", {}, 0, "suffix = [\".cap\", \".pcap\"]\n"},
      {"root = 'ROOT'\nsuffix = ['.cap', '.pcap']\n", {"--suffix", ".x"}, 0, "suffix = [\".x\"]\n"},
      {"root = 'ROOT'\nreconcile_interval = 5\nno-auto-cleanup = true\n", {}, 0,
       "no-auto-cleanup = true\n"},
      {"root = 'ROOT'\nreconcile_interval = 5\n", {}, 0, "reconcile-interval = 5\n"},
      {"root = 'ROOT'\n\ntrigerr = 0.9\n", {}, 2, "faitra.toml:3: key 'trigerr': unknown key"},
      {"root = 'ROOT'\ntrigger = 'high'\n", {}, 105, "(DIR/faitra.toml:2: key 'trigger')"},
      {"root = 'ROOT'\nstop = 1.5\n", {}, 105, "(DIR/faitra.toml:2: key 'stop')"},
      {"root = 'ROOT'\nno_auto_cleanup = 'yes'\n", {}, 2, "faitra.toml:2: key 'no_auto_cleanup': true or false"},
      {"root = 'ROOT'\ntrigger = [0.5]\n", {}, 2, "faitra.toml:2: key 'trigger': one value is expected"},
      {"root = 'ROOT'\n[[root]]\npath = 'x'\n", {}, 2, "faitra.toml:2:1: Error while parsing"},
      {"root = 'ROOT'\n[listen]\nport = 1\n", {}, 2, "faitra.toml:2: key 'listen': tables are not options"},
      {"root = 'ROOT'\nreconcile_interval = 5\nreconcile-interval = 6\n", {}, 2, "sets the same option"},
      {"root = 'ROOT'\ntrigger = 0.5\ntrigger = 0.6\n", {}, 2, "faitra.toml:3:"},
      {"root = 'ROOT'\ncheck-config = true\n", {}, 2, "key 'check-config': unknown key"},
      {"root = '/nonexistent'\n", {}, 105, "(DIR/faitra.toml:1: key 'root')"},
      {"trigger = 0.6\n[[root]]\npath = 'ROOT'\nstop = 0.5\n", {}, 0, "[[root]]\npath = \"DIR\"\nstop = 0.5\n"},
      {"[[root]]\npath = 'ROOT'\nlisten = 'x'\n", {}, 2, "faitra.toml:3: key 'listen': not a key of a [[root]]"},
      {"[[root]]\nstop = 0.5\n", {}, 2, "faitra.toml:1: a [[root]] table needs its directory"},
      {"[[root]]\npath = 'ROOT'\ntrigger = 2\n", {}, 1, "faitra.toml:1: root DIR: --trigger: 2 is too large"},
  };
  const std::string file = dir.file("faitra.toml");
  for (const config_case& c : cases) {
    std::string text = c.file;
    for (size_t at; (at = text.find("ROOT")) != std::string::npos;) text.replace(at, 4, dir.path());
    faitra_e2e::write_text(file, text);
    std::vector<std::string> args = {"serve", "--config", file, "--check-config"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const faitra_e2e::run_result r = faitra_e2e::run(args);
    std::string expected = c.expected;
    for (size_t at; (at = expected.find("DIR")) != std::string::npos;) expected.replace(at, 3, dir.path());
    EXPECT_EQ(r.status, c.status) << c.file << r.err;
    EXPECT_NE((c.status == 0 ? r.out : r.err).find(expected), std::string::npos)
        << c.file << "\nstdout:\n" << r.out << "stderr:\n" << r.err;
  }
}

}  // namespace
