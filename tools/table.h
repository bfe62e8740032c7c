// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "tools/console.h"

namespace keel {

// Rows of cells, aligned for a person. Cells may hold anything: what a terminal would act upon is
// escaped, and what is too long is shortened.
class Table {
 public:
  // What one cell may take of a line; the last column may take more.
  static constexpr std::size_t kCellColumns = 60;
  static constexpr std::size_t kLastCellColumns = 200;

  explicit Table(std::vector<std::string> heads) : heads_(std::move(heads)) {}
  // As many cells as there are heads.
  void add(std::vector<std::string> cells);
  // All lines, without blanks at their ends.
  std::string text(const Console& console) const;

 private:
  std::vector<std::string> heads_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace keel
