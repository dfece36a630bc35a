// faitra tag: the daemon's metadata derivation, offline. For each capture
// (files, or the captures directly inside directories) it reads the
// packets once, writes the capture attributes the file lacks and prints one
// JSON line; --dry-run writes nothing.
#include "commands.hpp"

#include <faitra/host/capture_attributes.hpp>
#include <faitra/host/capture_summary.hpp>

#include <cdl/json_values.hpp>
#include <cdl/json_writer.hpp>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace faitra_cli {

using namespace faitra_host;

namespace {

struct tag_options {
  std::vector<std::string> paths;
  std::vector<std::string> suffixes{".pcap", ".pcapng", ".pcap.lz4", ".pcapng.lz4"};
  bool dry_run = false;
};

bool has_suffix(const std::string& name, const std::vector<std::string>& suffixes) {
  return std::any_of(suffixes.begin(), suffixes.end(), [&](const std::string& s) {
    return name.size() > s.size() && name.compare(name.size() - s.size(), s.size(), s) == 0;
  });
}

// The files to tag, in order; false (with a message) when a PATH is unusable.
bool collect(const tag_options& options, std::vector<std::string>& files) {
  for (const std::string& path : options.paths) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
      std::fprintf(stderr, "faitra tag: %s: %s\n", path.c_str(), std::strerror(errno));
      return false;
    }
    if (!S_ISDIR(status.st_mode)) {
      files.push_back(path);
      continue;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (!dir) {
      std::fprintf(stderr, "faitra tag: %s: %s\n", path.c_str(), std::strerror(errno));
      return false;
    }
    std::vector<std::string> inside;
    while (const dirent* entry = ::readdir(dir.get())) {
      const std::string name = entry->d_name;
      const std::string full = (path.back() == '/' ? path : path + "/") + name;
      if (!has_suffix(name, options.suffixes) || ::stat(full.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        continue;
      }
      inside.push_back(full);
    }
    std::sort(inside.begin(), inside.end());
    files.insert(files.end(), inside.begin(), inside.end());
  }
  return true;
}

void write_optional(cdl::json_writer& w, const char* key, const std::optional<uint64_t>& v) {
  w.key(key, true);
  if (v) {
    w.value<unsigned long>(static_cast<unsigned long>(*v));
  } else {
    w.null_value();
  }
}

// Tags one file; returns whether it could be read.
bool tag_one(const std::string& path, const tag_options& options, const std::string& progress_prefix) {
  cdl::json_writer w;
  w.begin_object();
  w.key("path", true);
  w.value<std::string>(path);
  attribute_values values = read_capture_attributes(path);
  std::string action = "present";
  bool ok = true;
  std::optional<capture_summary> summary;
  if (!values.complete() || !values.malformed.empty()) {
    summary_options progress;
    if (!progress_prefix.empty()) {
      progress.progress = [&](uint64_t bytes) {
        if (bytes % (uint64_t{64} << 20) < (uint64_t{1} << 20)) {
          std::fprintf(stderr, "\r%s %llu MiB", progress_prefix.c_str(), static_cast<unsigned long long>(bytes >> 20));
        }
      };
    }
    summary = summarise_capture(path, progress);
    if (!summary->usable()) {
      ok = false;
      action = "failed";
    } else {
      const attribute_values derived = derived_attributes(*summary);
      action = options.dry_run ? "dry-run" : "written";
      if (!options.dry_run) {
        std::string error;
        if (write_capture_attributes(path, derived, error) != write_outcome::written) {
          ok = false;
          action = "failed";
          summary->message = "cannot set the attributes: " + error;
        } else {
          values = read_capture_attributes(path);
        }
      }
      values.fill_from(derived);
    }
  }
  w.key("action", true);
  w.value<std::string>(action);
  w.key("key", true);
  if (values.key) {
    w.value<std::string>(*values.key);
  } else {
    w.null_value();
  }
  write_optional(w, "start_ts", values.start_ns);
  write_optional(w, "end_ts", values.end_ns);
  w.key("creation_ts", true);
  if (values.creation_s) {
    w.value<long>(static_cast<long>(*values.creation_s));
  } else {
    w.null_value();
  }
  if (summary) {
    w.key("packets", true);
    w.value<unsigned long>(static_cast<unsigned long>(summary->packets));
    w.key("link_type", true);
    w.value<unsigned long>(summary->link_type);
    w.key("bytes_read", true);
    w.value<unsigned long>(static_cast<unsigned long>(summary->bytes));
    w.key("status", true);
    w.value<std::string>(to_string(summary->status));
    if (!summary->message.empty()) {
      w.key("message", true);
      w.value<std::string>(summary->message);
    }
  }
  w.end_object();
  const std::string line = w.take();
  if (!progress_prefix.empty()) std::fputs("\r\033[K", stderr);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
  return ok;
}

int run_tag(const tag_options& options) {
  std::vector<std::string> files;
  if (!collect(options, files)) return 1;
  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  unsigned long failed = 0;
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string prefix =
        terminal ? "[" + std::to_string(i + 1) + "/" + std::to_string(files.size()) + "] " + files[i] : "";
    if (!tag_one(files[i], options, prefix)) ++failed;
  }
  if (failed > 0) std::fprintf(stderr, "faitra tag: %lu of %zu captures could not be read\n", failed, files.size());
  return failed > 0 ? 1 : 0;
}

}  // namespace

void register_tag(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<tag_options>();
  auto* sub = app.add_subcommand("tag", "Derive capture metadata from the packets and set the attributes offline.");
  sub->footer(
      "Each PATH is a capture file or a directory whose captures (by suffix, not recursing) are tagged.\n"
      "For a capture that lacks any of user.pcap_hash, user.pcap_start_ts, user.pcap_end_ts and\n"
      "user.pcap_creation_ts, the packets are read once and the missing attributes set; attributes a\n"
      "writer set are never replaced. Output: one JSON object per capture:\n"
      "  {\"path\":...,\"action\":\"written|dry-run|present|failed\",\"key\":...,\"start_ts\":...,\"end_ts\":...,\n"
      "   \"creation_ts\":...,\"packets\":...,\"link_type\":...,\"bytes_read\":...,\"status\":...[,\"message\":...]}\n"
      "Progress goes to standard error when it is a terminal.\n"
      "Exit status 1 when a PATH is missing or a capture could not be read or tagged.\n");
  sub->add_option("PATH", options->paths, "Capture files or directories")->required();
  sub->add_flag("--dry-run", options->dry_run, "Derive and print, but write no attribute");
  sub->add_option("--suffix", options->suffixes,
                  "In directories, a file is a capture when its name ends with one of these (repeatable)")
      ->allow_extra_args(false)
      ->capture_default_str();
  sub->callback([options, &exit_code] { exit_code = run_tag(*options); });
}

}  // namespace faitra_cli
