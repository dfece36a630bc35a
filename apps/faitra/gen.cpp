#include "commands.hpp"

namespace faitra_cli {

void register_gen(CLI::App& app, int& exit_code) {
  auto* sub = app.add_subcommand("gen", "(not built yet)");
  sub->callback([&exit_code] { exit_code = 2; });
}

}  // namespace faitra_cli
