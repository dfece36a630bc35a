// Names that are not UTF-8, as the API's JSON carries them and clients send
// them back.
//
// The daemon's JSON is always valid UTF-8: each byte of a name or attribute
// value that is not part of a well-formed UTF-8 sequence is written as the
// lone surrogate escape \udcXX (U+DC80 to U+DCFF, XX being the byte), the
// form Python's os.fsdecode gives. A JSON parser that keeps lone surrogates
// turns that escape into the three bytes ED B2 80 to ED B3 BF (the
// generalised UTF-8 of the surrogate; RapidJSON does so, and Python's
// s.encode("utf-8", "surrogatepass")). Well-formed UTF-8 never contains
// those three-byte sequences, so they stand for the original bytes without
// ambiguity, and restore_escaped_bytes turns them back.
//
// Thread-safety: pure functions.
#pragma once

#include <string>

namespace faitra_host {

// `text` with every three-byte sequence of a surrogate U+DC80..U+DCFF
// replaced by the byte it stands for (0x80 to 0xFF); all other bytes as
// they are.
std::string restore_escaped_bytes(const std::string& text);

// Whether `text` holds such a sequence (restore_escaped_bytes changes it).
bool has_escaped_bytes(const std::string& text);

}  // namespace faitra_host
