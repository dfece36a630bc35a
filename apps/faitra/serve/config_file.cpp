#include "serve/config_file.hpp"

// toml++ 3.3.0 asserts on some malformed table headers (a "[" followed by a
// line break) that its parser goes on to report as a parse error; with
// NDEBUG the assertion becomes an assumption that the optimiser may act on.
// Neither: a bad file must give the parse error in every build type.
#include <toml++/impl/preprocessor.h>
#undef TOML_ASSERT_ASSUME
#define TOML_ASSERT_ASSUME(expr) static_assert(true)
#undef TOML_ASSERT
#define TOML_ASSERT(expr) static_assert(true)
#include <toml++/toml.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <charconv>
#include <set>

namespace faitra_cli {

namespace {

// Options about the file itself, which the file cannot set.
const std::set<std::string> NOT_IN_FILE = {"config", "check-config", "help"};

std::string where(const std::string& file, const toml::source_region& region, const std::string& key) {
  return file + ":" + std::to_string(region.begin.line) + ": key '" + key + "'";
}

// The long option a key names ("reconcile_interval" -> reconcile-interval).
const CLI::Option* option_for(const CLI::App& serve, std::string key) {
  std::replace(key.begin(), key.end(), '_', '-');
  if (NOT_IN_FILE.count(key) != 0) return nullptr;
  for (const CLI::Option* opt : serve.get_options()) {
    const auto& names = opt->get_lnames();
    if (std::find(names.begin(), names.end(), key) != names.end()) return opt;
  }
  return nullptr;
}

bool is_flag(const CLI::Option& opt) { return opt.get_expected_max() == 0; }

bool is_list(const CLI::Option& opt) {
  return opt.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll ||
         opt.get_items_expected_max() >= CLI::detail::expected_max_vector_size;
}

// A scalar as the command line would spell it; false for other kinds.
bool scalar_text(const toml::node& node, std::string& out) {
  if (const auto* s = node.as_string()) {
    out = s->get();
  } else if (const auto* i = node.as_integer()) {
    out = std::to_string(i->get());
  } else if (const auto* f = node.as_floating_point()) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, f->get());
    out.assign(text, result.ptr);
  } else {
    return false;
  }
  return true;
}

// The long names of the options given in `args` (from `first` on).
std::set<std::string> given_options(const std::vector<std::string>& args, size_t first) {
  std::set<std::string> given;
  for (size_t i = first; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--") break;
    if (a.rfind("--", 0) == 0) given.insert(a.substr(2, a.find('=') == std::string::npos ? std::string::npos
                                                                                          : a.find('=') - 2));
  }
  return given;
}

void add_key(std::vector<std::string>& out, const std::string& file, const std::string& key,
             const toml::node& value, const CLI::App& serve, config_sources& sources) {
  const std::string place = where(file, value.source(), key);
  const CLI::Option* opt = option_for(serve, key);
  if (opt == nullptr) throw config_error(place + ": unknown key; the keys are the options of 'faitra serve'");
  const std::string flag = "--" + opt->get_lnames().front();
  sources[opt->get_lnames().front()] = place;
  if (is_flag(*opt)) {
    const auto* b = value.as_boolean();
    if (b == nullptr) throw config_error(place + ": true or false is expected");
    if (b->get()) out.push_back(flag);
    return;
  }
  std::string text;
  if (const auto* list = value.as_array()) {
    if (!is_list(*opt)) throw config_error(place + ": one value is expected, not an array");
    for (const toml::node& item : *list) {
      if (!scalar_text(item, text)) throw config_error(place + ": the array must hold strings or numbers");
      out.insert(out.end(), {flag, text});
    }
    return;
  }
  if (!scalar_text(value, text)) {
    throw config_error(place + (value.is_table() || value.is_array_of_tables() ? ": tables are not options"
                                                                               : ": a string or a number is expected"));
  }
  out.insert(out.end(), {flag, text});
}

// A value as the file would spell it: numbers as the command line reads
// them (0.2, not toml++'s 0.20000000000000001), strings quoted.
std::string value_text(const toml::node& node) {
  if (const auto* b = node.as_boolean()) return b->get() ? "true" : "false";
  if (const auto* list = node.as_array()) {
    std::string out = "[";
    for (const toml::node& item : *list) out += (out.size() > 1 ? ", " : "") + value_text(item);
    return out + "]";
  }
  std::string text;
  scalar_text(node, text);
  if (!node.is_string()) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
  return quoted + "\"";
}

// A [[root]] table's keys, path first, one line each.
std::string table_text(const toml::table& table) {
  std::string out = "path = " + value_text(*table.get("path")) + "\n";
  for (const auto& [key, value] : table) {
    if (key.str() != "path") out += std::string(key.str()) + " = " + value_text(value) + "\n";
  }
  return out;
}

// The `[[root]]` tables under the key `root`, each checked: a path, and
// per-root options only, with values of the right type.
std::vector<root_table> root_tables(const toml::array& tables, const std::string& file, const CLI::App& serve) {
  std::vector<root_table> out;
  for (const toml::node& node : tables) {
    const toml::table& table = *node.as_table();
    root_table root;
    root.place = file + ":" + std::to_string(node.source().begin.line);
    const auto* path = table.get_as<std::string>("path");
    if (path == nullptr || path->get().empty()) {
      throw config_error(root.place + ": a [[root]] table needs its directory as a string: path = \"DIR\"");
    }
    root.path = path->get();
    for (const auto& [key, value] : table) {
      const std::string name(key.str());
      if (name == "path") continue;
      const CLI::Option* opt = option_for(serve, name);
      if (opt == nullptr || opt->get_group() != ROOT_OPTIONS_GROUP) {
        std::string names;
        for (const CLI::Option* o : serve.get_options()) {
          if (o->get_group() == ROOT_OPTIONS_GROUP) names += ", " + o->get_lnames().front();
        }
        throw config_error(where(file, value.source(), name) + ": not a key of a [[root]] table; those are path" +
                           names);
      }
      config_sources unused;
      add_key(root.args, file, name, value, serve, unused);
    }
    root.toml = table_text(table);
    out.push_back(std::move(root));
  }
  return out;
}

// The file's text as a TOML table; raises config_error.
toml::table parse_file(const std::string& text, const std::string& file) {
  // toml++ 3.3.0 reaches undefined behaviour on some characters outside
  // ASCII (its Unicode white-space test has unhandled ranges), so the file
  // is kept to ASCII; TOML writes any other character in a string as \uXXXX.
  const auto non_ascii = std::find_if(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
  if (non_ascii != text.end()) {
    const long line = 1 + std::count(text.begin(), non_ascii, '\n');
    throw config_error(file + ":" + std::to_string(line) +
                       ": a character outside ASCII; write it as \\uXXXX inside a string");
  }
  try {
    return toml::parse(text, file);
  } catch (const toml::parse_error& e) {
    const auto& at = e.source().begin;
    throw config_error(file + ":" + std::to_string(at.line) + ":" + std::to_string(at.column) + ": " +
                       std::string(e.description()));
  }
}

std::string read_file(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in.is_open()) throw config_error(file + ": cannot be read: " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

std::vector<std::string> config_arguments(const std::string& text, const std::string& file, const CLI::App& serve,
                                          const std::set<std::string>& given, config_sources& sources) {
  const toml::table table = parse_file(text, file);
  std::vector<std::string> out;
  std::map<std::string, std::string> keys;  // long name -> the key that set it
  for (const auto& [key, value] : table) {
    const std::string name(key.str());
    if (name == "root" && value.is_array_of_tables()) {
      const std::vector<root_table> roots = root_tables(*value.as_array(), file, serve);
      if (given.count("root") != 0) continue;
      for (const root_table& r : roots) out.insert(out.end(), {"--root", r.path});
      sources["root"] = where(file, value.source(), name);
      continue;
    }
    const CLI::Option* opt = option_for(serve, name);
    if (opt != nullptr && !keys.emplace(opt->get_lnames().front(), name).second) {
      throw config_error(where(file, value.source(), name) + ": sets the same option as key '" +
                         keys[opt->get_lnames().front()] + "'");
    }
    // Checked even when the command line wins, which then drops it.
    config_sources checked;
    std::vector<std::string> tokens;
    add_key(tokens, file, name, value, serve, checked);
    if (given.count(opt->get_lnames().front()) != 0) continue;
    out.insert(out.end(), tokens.begin(), tokens.end());
    sources.insert(checked.begin(), checked.end());
  }
  return out;
}

std::vector<std::string> with_config_file(const std::vector<std::string>& args, const CLI::App& serve,
                                          config_sources& sources) {
  const auto serve_at = std::find(args.begin(), args.end(), serve.get_name());
  if (serve_at == args.end()) return args;
  const size_t first = static_cast<size_t>(serve_at - args.begin()) + 1;
  std::string file;
  for (size_t i = first; i < args.size() && args[i] != "--"; ++i) {
    if (args[i] == "--config" && i + 1 < args.size()) file = args[i + 1];
    if (args[i].rfind("--config=", 0) == 0) file = args[i].substr(9);
  }
  if (file.empty()) return args;
  const std::vector<std::string> from_file =
      config_arguments(read_file(file), file, serve, given_options(args, first), sources);
  std::vector<std::string> out(args.begin(), args.begin() + static_cast<long>(first));
  out.insert(out.end(), from_file.begin(), from_file.end());
  out.insert(out.end(), args.begin() + static_cast<long>(first), args.end());
  return out;
}

namespace {

std::string toml_value(const std::string& text, const CLI::Option& opt) {
  const std::string type = opt.get_type_name();
  const bool number = !text.empty() && text.find_first_not_of("0123456789.-+e") == std::string::npos &&
                      (type.find("FLOAT") != std::string::npos || type.find("INT") != std::string::npos);
  if (number) return text;
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

std::vector<root_table> read_root_tables(const std::string& file, const CLI::App& serve) {
  if (file.empty()) return {};
  const toml::table table = parse_file(read_file(file), file);
  const toml::node* roots = table.get("root");
  if (roots == nullptr || !roots->is_array_of_tables()) return {};
  return root_tables(*roots->as_array(), file, serve);
}

std::string effective_config(const CLI::App& serve, const std::vector<root_table>& tables) {
  std::string out;
  for (const CLI::Option* opt : serve.get_options()) {
    if (opt->get_lnames().empty() || NOT_IN_FILE.count(opt->get_lnames().front()) != 0) continue;
    const bool root = opt->get_lnames().front() == "root";
    if (root && !tables.empty()) continue;  // written as the tables, below
    std::string value;
    if (is_flag(*opt)) {
      value = opt->count() > 0 ? "true" : "false";
    } else if (opt->count() == 0 && opt->get_default_str().empty()) {
      continue;  // no value: the option's own default applies (see --help)
    } else {
      const std::vector<std::string> results =
          opt->count() > 0 ? opt->results() : std::vector<std::string>{opt->get_default_str()};
      if (is_list(*opt) && !(root && results.size() == 1)) {
        value = "[";
        for (const std::string& r : results) value += (value.size() > 1 ? ", " : "") + toml_value(r, *opt);
        value += "]";
      } else {
        value = toml_value(results.back(), *opt);
      }
    }
    out += opt->get_lnames().front() + " = " + value + "\n";
  }
  for (const root_table& t : tables) out += "\n[[root]]\n" + t.toml;
  return out;
}

std::string explain_error(const std::string& message, const config_sources& sources) {
  std::string out = message;
  for (const auto& [name, place] : sources) {
    const std::string flag = "--" + name;
    const size_t at = message.find(flag);
    const bool whole = at != std::string::npos &&
                       (at + flag.size() == message.size() ||
                        !(std::isalnum(static_cast<unsigned char>(message[at + flag.size()])) ||
                          message[at + flag.size()] == '-'));
    if (whole) out += " (" + place + ")";
  }
  return out;
}

}  // namespace faitra_cli
