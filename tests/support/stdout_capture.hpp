// Reading back what is written to standard output: descriptor 1 is pointed at
// a temporary file and restored afterwards, so the test framework's own output
// is never captured. Use only while no other thread writes to standard output
// on its own account (each test runs in its own process).
#pragma once

#include <cdl/log.hpp>

#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace faitra_test {

// Standard output goes to a temporary file until restore() or destruction.
class stdout_redirect {
 public:
  stdout_redirect() {
    std::fflush(stdout);
    _sink = std::tmpfile();
    _saved = _sink == nullptr ? -1 : ::dup(STDOUT_FILENO);
    if (_saved < 0 || ::dup2(::fileno(_sink), STDOUT_FILENO) < 0) {
      throw std::runtime_error("cannot redirect standard output");
    }
  }
  ~stdout_redirect() {
    restore();
    std::fclose(_sink);
  }
  stdout_redirect(const stdout_redirect&) = delete;
  stdout_redirect& operator=(const stdout_redirect&) = delete;

  void restore() {
    if (_saved < 0) return;
    std::fflush(stdout);
    ::dup2(_saved, STDOUT_FILENO);
    ::close(_saved);
    _saved = -1;
  }
  // Everything written so far; read by offset, so the writers' position stays.
  std::string text() const {
    std::string out;
    char buffer[4096];
    ssize_t n;
    while ((n = ::pread(::fileno(_sink), buffer, sizeof buffer, static_cast<off_t>(out.size()))) > 0) {
      out.append(buffer, static_cast<size_t>(n));
    }
    return out;
  }

 private:
  std::FILE* _sink = nullptr;
  int _saved = -1;
};

// Runs `call` with standard output redirected and returns what it wrote; an
// exception from `call` propagates after standard output is restored.
template <typename F>
std::string capture_stdout(F&& call) {
  stdout_redirect redirect;
  call();
  redirect.restore();
  return redirect.text();
}

// A debug-level log of type os named `name` printing on standard output,
// captured for the object's lifetime; lines written by any thread can be read
// back. If the test failed, the capture is replayed on the real standard
// output at destruction. Create it before anything logging through it.
class stdout_log_capture {
 public:
  explicit stdout_log_capture(const char* name)
      : _log(cdl::log_type::os, cdl::log_facility::local0, name, cdl::log_priority::debug, true) {}
  ~stdout_log_capture() {
    _redirect.restore();
    if (::testing::Test::HasFailure()) std::fputs(text().c_str(), stdout);
  }

  cdl::log* log() { return &_log; }
  std::string text() const { return _redirect.text(); }
  bool contains(const std::string& fragment) const { return text().find(fragment) != std::string::npos; }
  bool wait_for(const std::string& fragment) const {
    return wait_until([&] { return contains(fragment); });
  }
  // How many whole lines equal `line`, or start with `prefix`.
  size_t count_line(const std::string& line) const { return count(line, true); }
  size_t count_prefix(const std::string& prefix) const { return count(prefix, false); }
  bool has_line(const std::string& line) const { return count_line(line) > 0; }

 private:
  size_t count(const std::string& wanted, bool whole) const {
    const std::string all = text();
    size_t n = 0;
    for (size_t begin = 0, end; begin < all.size(); begin = end + 1) {
      end = all.find('\n', begin);
      if (end == std::string::npos) end = all.size();
      const std::string line = all.substr(begin, end - begin);
      if (whole ? line == wanted : line.compare(0, wanted.size(), wanted) == 0) ++n;
    }
    return n;
  }

  stdout_redirect _redirect;
  cdl::log _log;
};

}  // namespace faitra_test
