// Text utilities of the host runtime: the platform path separator, plain
// decimal conversion, JSON string escaping and the negative-number test.
//
// Thread-safety: all functions are pure and callable from any thread.
#pragma once

#include <string>

namespace cdl {

// The platform's path separator ('/' on Linux).
char path_separator();

// Plain decimal text of an integer (no grouping, no leading zeros); strings
// are returned unchanged.
std::string to_str(unsigned long value);
std::string to_str(long value);
std::string to_str(const std::string& value);

// Escapes `text` for inclusion between JSON double quotes: quote, backslash
// and every control character below 0x20 are escaped; all other bytes,
// UTF-8 sequences included, pass through unchanged.
std::string safe_quote(const std::string& text);

// True when `text`, after leading white space, starts with a minus sign
// followed by a digit: the text of a negative number.
bool negative_number_str(const std::string& text);

}  // namespace cdl
