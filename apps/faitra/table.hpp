// Plain-text tables for the subcommands' readable output: columns padded
// to their widest cell, two spaces apart, a header line first.
#pragma once

#include <string>
#include <vector>

namespace faitra_cli {

void print_table(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);

}  // namespace faitra_cli
