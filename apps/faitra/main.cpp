// faitra: catalogue a packet-capture directory live and keep its file
// system under a usage ceiling.
#include "commands.hpp"
#include "serve/config_file.hpp"
#include <faitra/host/daemon.hpp>

#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  CLI::App app{
      "faitra keeps a directory of packet-capture files catalogued and under a disk-usage ceiling.\n"
      "Run 'faitra SUBCOMMAND --help' for the options of each subcommand."};
  app.set_version_flag("--version", std::string("faitra ") + faitra_host::faitra_version(),
                       "Print the version and exit");
  app.require_subcommand(1);
  int exit_code = 0;
  faitra_cli::register_serve(app, exit_code);
  faitra_cli::register_scan(app, exit_code);
  faitra_cli::register_gen(app, exit_code);
  faitra_cli::register_tag(app, exit_code);
  faitra_cli::register_client(app, exit_code);
  faitra_cli::register_extract(app, exit_code);
  faitra_cli::register_fleet(app, exit_code);
  // `serve --config FILE` adds the file's options to the arguments.
  std::vector<std::string> args(argv + 1, argv + argc);
  faitra_cli::config_sources sources;
  try {
    args = faitra_cli::with_config_file(args, *app.get_subcommand("serve"), sources);
  } catch (const faitra_cli::config_error& e) {
    std::cerr << "faitra serve: " << e.what() << "\n";
    return 2;
  }
  std::vector<char*> full{argv[0]};
  for (std::string& a : args) full.push_back(a.data());
  try {
    app.parse(static_cast<int>(full.size()), full.data());
  } catch (const CLI::ParseError& e) {
    if (sources.empty() || e.get_exit_code() == 0) return app.exit(e);
    std::cerr << faitra_cli::explain_error(e.what(), sources) << "\n";
    return e.get_exit_code();
  }
  return exit_code;
}
