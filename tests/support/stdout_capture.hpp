// Capturing what a call writes to standard output: file descriptor 1 is
// pointed at a temporary file for the call and restored afterwards, so the
// test framework's own output is never captured. Call only while no other
// thread writes to standard output.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

namespace faitra_test {

// Runs `call` with standard output redirected and returns what it wrote.
// An exception from `call` is rethrown after standard output is restored.
template <typename F>
std::string capture_stdout(F&& call) {
  std::fflush(stdout);
  std::FILE* sink = std::tmpfile();
  if (sink == nullptr) throw std::runtime_error("tmpfile failed");
  const int saved = ::dup(STDOUT_FILENO);
  if (saved < 0 || ::dup2(::fileno(sink), STDOUT_FILENO) < 0) {
    std::fclose(sink);
    throw std::runtime_error("cannot redirect standard output");
  }
  std::exception_ptr failure;
  try {
    call();
  } catch (...) {
    failure = std::current_exception();
  }
  std::fflush(stdout);
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);

  std::string text;
  std::rewind(sink);
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, sink)) > 0) text.append(buffer, n);
  std::fclose(sink);
  if (failure) std::rethrow_exception(failure);
  return text;
}

}  // namespace faitra_test
