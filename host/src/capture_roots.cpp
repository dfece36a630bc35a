#include <faitra/host/capture_roots.hpp>

#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

namespace faitra_host {

namespace {

// The directory with its symbolic links resolved, so that two spellings of
// one directory compare equal; as given when it cannot be resolved (the
// daemon then reports it).
std::string resolved(const std::string& dir) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::canonical(normal_directory(dir), error);
  return error ? normal_directory(dir) : path.string();
}

bool inside(const std::string& dir, const std::string& parent) {
  return parent == "/" || dir.compare(0, parent.size() + 1, parent + "/") == 0;
}

}  // namespace

void check_roots_apart(const std::vector<daemon_options>& roots) {
  for (size_t i = 0; i < roots.size(); ++i) {
    for (size_t j = i + 1; j < roots.size(); ++j) {
      const std::string a = resolved(roots[i].root);
      const std::string b = resolved(roots[j].root);
      if (a == b) throw std::invalid_argument("the root " + roots[i].root + " is given twice");
      if (inside(a, b) || inside(b, a)) {
        const bool a_inner = inside(a, b);
        throw std::invalid_argument("the root " + (a_inner ? roots[i].root : roots[j].root) + " lies inside the root " +
                                    (a_inner ? roots[j].root : roots[i].root) + "; roots must not nest");
      }
      if (roots[i].export_to && roots[j].export_to && roots[i].export_to->who.sensor == roots[j].export_to->who.sensor) {
        throw std::invalid_argument("the roots " + roots[i].root + " and " + roots[j].root +
                                    " export under one sensor name; each export owns its sensor's rows");
      }
    }
  }
}

std::vector<std::pair<size_t, size_t>> roots_sharing_a_file_system(const std::vector<daemon_options>& roots) {
  std::vector<std::pair<size_t, size_t>> shared;
  std::vector<struct stat> status(roots.size());
  std::vector<bool> known(roots.size());
  for (size_t i = 0; i < roots.size(); ++i) known[i] = ::stat(roots[i].root.c_str(), &status[i]) == 0;
  for (size_t i = 0; i < roots.size(); ++i) {
    for (size_t j = i + 1; j < roots.size(); ++j) {
      if (known[i] && known[j] && status[i].st_dev == status[j].st_dev) shared.emplace_back(i, j);
    }
  }
  return shared;
}

capture_roots::capture_roots(std::vector<daemon_options> roots) {
  if (roots.empty()) throw std::invalid_argument("--root is required");
  check_roots_apart(roots);
  const auto shared = roots_sharing_a_file_system(roots);
  try {
    for (daemon_options& o : roots) {
      const std::string root = o.root;
      try {
        _daemons.push_back(std::make_unique<capture_daemon>(std::move(o)));
      } catch (const std::exception& e) {
        if (roots.size() == 1) throw;
        throw std::invalid_argument("root " + root + ": " + e.what());
      }
    }
  } catch (...) {
    shutdown();
    throw;
  }
  for (const auto& [i, j] : shared) {
    const daemon_options& a = _daemons[i]->options();
    const daemon_options& b = _daemons[j]->options();
    _daemons[i]->log()->info(
        "The roots %s (trigger %.3g, stop %.3g) and %s (trigger %.3g, stop %.3g) are on one file system: both "
        "cleaners measure the same usage and each deletes only its own captures",
        a.root, static_cast<double>(a.trigger), static_cast<double>(a.stop), b.root,
        static_cast<double>(b.trigger), static_cast<double>(b.stop));
  }
}

capture_roots::~capture_roots() { shutdown(); }

void capture_roots::shutdown() {
  for (auto it = _daemons.rbegin(); it != _daemons.rend(); ++it) (*it)->shutdown();
}

capture_daemon* capture_roots::find(const std::string& name) {
  if (name.empty()) return nullptr;
  const std::string wanted = normal_directory(name);
  for (const auto& d : _daemons) {
    if (d->options().root == wanted) return d.get();
  }
  return nullptr;
}

std::string capture_roots::names() const {
  std::string out;
  for (const auto& d : _daemons) out += (out.empty() ? "" : ", ") + d->options().root;
  return out;
}

}  // namespace faitra_host
