// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "tools/console.h"

namespace keel {

// Formats rows of cells as an aligned table. Cells may hold any text: terminal controls are escaped
// and long cells truncated.
class Table {
 public:
  // Maximum width of a cell; the last column may be wider.
  static constexpr std::size_t kCellColumns = 60;
  static constexpr std::size_t kLastCellColumns = 200;

  explicit Table(std::vector<std::string> heads) : heads_(std::move(heads)) {}
  // `cells` has one element per head.
  void add(std::vector<std::string> cells);
  // Returns all lines, without trailing blanks.
  std::string text(const Console& console) const;

 private:
  std::vector<std::string> heads_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace keel
