#include "commands.hpp"

namespace faitra_cli {

void register_serve(CLI::App& app, int& exit_code) {
  auto* sub = app.add_subcommand("serve", "(not built yet)");
  sub->callback([&exit_code] { exit_code = 2; });
}

}  // namespace faitra_cli
