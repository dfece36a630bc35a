// Runs the configuration file reader on any text, against a command with
// the kinds of options `faitra serve` has (a value with a range check, a
// flag, a repeatable option, a text). Allowed outcome: arguments, each
// option preceded by its flag, or faitra_cli::config_error with a message
// that names the file.
#include "fuzz_check.hpp"

#include "config_file.hpp"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static CLI::App* serve = [] {
    auto* app = new CLI::App("fuzz");
    auto* sub = app->add_subcommand("serve");
    static float trigger = 0.9F;
    static bool flag = false;
    static std::vector<std::string> list;
    static std::string text;
    sub->add_option("--trigger", trigger)->check(CLI::Range(0.0F, 1.0F));
    sub->add_flag("--no-auto-cleanup", flag);
    sub->add_option("--suffix", list)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--listen", text);
    sub->add_option("--config", text);
    return sub;
  }();
  const std::string input(reinterpret_cast<const char*>(data), size);
  try {
    faitra_cli::config_sources sources;
    const auto args = faitra_cli::config_arguments(input, "fuzz.toml", *serve, {"listen"}, sources);
    for (size_t i = 0; i < args.size(); ++i) {
      const bool flag = args[i] == "--trigger" || args[i] == "--no-auto-cleanup" || args[i] == "--suffix";
      FUZZ_CHECK(flag);
      if (args[i] != "--no-auto-cleanup") ++i;
    }
  } catch (const faitra_cli::config_error& e) {
    FUZZ_CHECK(std::string(e.what()).rfind("fuzz.toml:", 0) == 0);
  }
  return 0;
}
