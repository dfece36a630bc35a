// The subcommands' readable output: plain-text tables (columns padded to
// their widest cell, two spaces apart, a header line first) and sizes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace faitra_cli {

// 1536 -> "1.5 KiB".
std::string human_bytes(uint64_t bytes);

void print_table(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);

}  // namespace faitra_cli
