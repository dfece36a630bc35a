// faitra: catalogue a packet-capture directory live and keep its file
// system under a usage ceiling.
#include "commands.hpp"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  CLI::App app{
      "faitra keeps a directory of packet-capture files catalogued and under a disk-usage ceiling.\n"
      "Run 'faitra SUBCOMMAND --help' for the options of each subcommand."};
  app.require_subcommand(1);
  int exit_code = 0;
  faitra_cli::register_serve(app, exit_code);
  faitra_cli::register_scan(app, exit_code);
  faitra_cli::register_gen(app, exit_code);
  faitra_cli::register_client(app, exit_code);
  faitra_cli::register_extract(app, exit_code);
  CLI11_PARSE(app, argc, argv);
  return exit_code;
}
