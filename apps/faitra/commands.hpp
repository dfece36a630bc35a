// The subcommands of the faitra command. Each register_* function adds its
// subcommand (options, help text and callback) to the application; the
// callback sets the process exit code through `exit_code`.
#pragma once

#include <CLI/CLI.hpp>

namespace faitra_cli {

void register_serve(CLI::App& app, int& exit_code);
void register_scan(CLI::App& app, int& exit_code);
void register_gen(CLI::App& app, int& exit_code);
void register_tag(CLI::App& app, int& exit_code);
void register_client(CLI::App& app, int& exit_code);
void register_extract(CLI::App& app, int& exit_code);
void register_hold(CLI::App& app, int& exit_code);
void register_fleet(CLI::App& app, int& exit_code);

}  // namespace faitra_cli
