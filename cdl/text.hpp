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

// Escapes `text` for inclusion between JSON double quotes, giving valid
// UTF-8 whatever the bytes: quote, backslash and every control character
// below 0x20 are escaped; well-formed UTF-8 sequences pass through
// unchanged; each byte that is not part of one (Linux names are bytes) is
// written as the lone surrogate escape \udcXX, XX being the byte (0x80 to
// 0xff), from which a reader restores the exact bytes.
std::string safe_quote(const std::string& text);

// True when `text`, after leading white space, starts with a minus sign
// followed by a digit: the text of a negative number.
bool negative_number_str(const std::string& text);

}  // namespace cdl
