// SPDX-License-Identifier: Apache-2.0
#include "tools/table.h"

#include <algorithm>

#include "client/shown_text.h"

namespace keel {

void Table::add(std::vector<std::string> cells) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    cells[i] = shownText(cells[i], i + 1 == heads_.size() ? kLastCellColumns : kCellColumns);
  }
  rows_.push_back(std::move(cells));
}

std::string Table::text(const Console& console) const {
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < heads_.size(); ++i) {
    std::size_t width = columnsOf(heads_[i]);
    for (const auto& row : rows_) width = std::max(width, columnsOf(row[i]));
    widths.push_back(width);
  }
  const auto line = [&](const std::vector<std::string>& cells) {
    std::string joined;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      joined += cells[i];
      if (i + 1 < cells.size()) joined.append(widths[i] - columnsOf(cells[i]) + 2, ' ');
    }
    joined.erase(joined.find_last_not_of(' ') + 1);
    return joined;
  };
  std::string text = console.bold(line(heads_)) + "\n";
  for (const auto& row : rows_) text += line(row) + "\n";
  return text;
}

}  // namespace keel
