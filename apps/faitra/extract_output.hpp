// Where an extraction's capture goes, shared by `faitra extract` and
// `faitra fleet extract`: standard output, or a temporary file beside the
// target renamed over it only by commit(), so that an error leaves nothing
// partial behind (without commit() the temporary file is removed); and the
// progress line on standard error, drawn only when it is a terminal; the
// reason a daemon gives for refusing.
//
// Errors raise std::runtime_error with a readable message.
//
// Thread-safety: each object belongs to one thread.
#pragma once

#include "table.hpp"

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace faitra_cli {

// The message of a daemon's refusal ({"error": "..."}), or the body as it
// is when it holds none.
std::string refusal_text(const std::string& body);

class output_file {
 public:
  // "-" is standard output, refused when it is a terminal.
  explicit output_file(const std::string& target);
  ~output_file();
  output_file(const output_file&) = delete;
  output_file& operator=(const output_file&) = delete;

  void write(const char* data, size_t size);
  void commit();

  uint64_t bytes() const { return _bytes; }
  const std::string& shown() const { return _shown; }

 private:
  void flush();

  std::string _target;
  std::string _temporary;
  std::string _shown;
  std::string _buffer;
  int _fd = -1;
  uint64_t _bytes = 0;
  bool _committed = false;
};

// One line, redrawn at most every 200 ms.
class progress {
 public:
  progress();
  void update(const std::string& text, bool force = false);
  void finish(const std::string& text);

 private:
  bool _shown;
  std::chrono::steady_clock::time_point _began = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point _last{};
};

}  // namespace faitra_cli
