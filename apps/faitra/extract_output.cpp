#include "extract_output.hpp"

#include <rapidjson/document.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace faitra_cli {

namespace {

constexpr size_t WRITE_BUFFER = 1 << 20;
constexpr std::chrono::milliseconds PROGRESS_EVERY{200};

}  // namespace

std::string refusal_text(const std::string& body) {
  rapidjson::Document doc;
  doc.Parse(body.c_str());
  if (!doc.HasParseError() && doc.IsObject() && doc.HasMember("error") && doc["error"].IsString()) {
    return doc["error"].GetString();
  }
  return body;
}

output_file::output_file(const std::string& target) : _target(target) {
  if (target == "-") {
    if (::isatty(STDOUT_FILENO)) {
      throw std::runtime_error("will not write a capture to a terminal; give -w FILE or redirect standard output");
    }
    _fd = STDOUT_FILENO;
    _shown = "standard output";
    return;
  }
  const size_t slash = target.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : target.substr(0, slash == 0 ? 1 : slash);
  const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
  if (name.empty()) throw std::runtime_error("-w: " + target + " names a directory, not a file");
  _temporary = dir + "/." + name + ".XXXXXX";
  _fd = ::mkostemp(_temporary.data(), O_CLOEXEC);
  if (_fd < 0) throw std::runtime_error("cannot create a file in " + dir + ": " + std::strerror(errno));
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(_fd, 0666 & ~mask);
  _shown = target;
}

output_file::~output_file() {
  if (_temporary.empty()) return;
  if (_fd >= 0) ::close(_fd);
  if (!_committed) ::unlink(_temporary.c_str());
}

void output_file::write(const char* data, size_t size) {
  _buffer.append(data, size);
  _bytes += size;
  if (_buffer.size() >= WRITE_BUFFER) flush();
}

void output_file::commit() {
  flush();
  if (_temporary.empty()) return;
  if (::close(_fd) != 0) {
    _fd = -1;
    throw std::runtime_error("writing " + _target + ": " + std::strerror(errno));
  }
  _fd = -1;
  if (::rename(_temporary.c_str(), _target.c_str()) != 0) {
    throw std::runtime_error("cannot rename the file to " + _target + ": " + std::strerror(errno));
  }
  _committed = true;
}

void output_file::flush() {
  size_t done = 0;
  while (done < _buffer.size()) {
    const ssize_t n = ::write(_fd, _buffer.data() + done, _buffer.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error("writing " + _shown + ": " + std::strerror(errno));
    done += static_cast<size_t>(n);
  }
  _buffer.clear();
}

progress::progress() : _shown(::isatty(STDERR_FILENO) != 0) {}

void progress::update(const std::string& text, bool force) {
  if (!_shown) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - _last < PROGRESS_EVERY) return;
  _last = now;
  const double seconds = std::chrono::duration<double>(now - _began).count();
  std::fprintf(stderr, "\r\033[K%s, %.1f s", text.c_str(), seconds);
  std::fflush(stderr);
}

void progress::finish(const std::string& text) {
  update(text, true);
  if (_shown) std::fputc('\n', stderr);
}

}  // namespace faitra_cli
