#include "table.hpp"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace faitra_cli {

std::string human_bytes(uint64_t bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(units)) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text;
}

void print_table(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width(header.size());
  for (size_t c = 0; c < header.size(); ++c) width[c] = header[c].size();
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
  }
  auto print_row = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line += std::string(width[c] - row[c].size() + 2, ' ');
    }
    std::cout << line << "\n";
  };
  print_row(header);
  for (const auto& row : rows) print_row(row);
}

}  // namespace faitra_cli
