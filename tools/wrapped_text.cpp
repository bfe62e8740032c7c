// SPDX-License-Identifier: Apache-2.0
#include "tools/wrapped_text.h"

#include <algorithm>

#include "client/shown_text.h"

namespace keel {

namespace {

// Returns the indentation of the continuation lines of `line`.
std::size_t indentOf(std::string_view line, std::size_t columns) {
  const std::size_t first = std::min(line.find_first_not_of(' '), line.size());
  const std::size_t gap = line.find("  ", first);
  if (gap == line.npos) return first;
  const std::size_t second = line.find_first_not_of(' ', gap);
  // The second part's column would be too narrow.
  return second == line.npos || second > columns / 2 ? first : second;
}

void appendWrapped(std::string& output, std::string_view line, std::size_t columns) {
  const std::size_t indent = indentOf(line, columns);
  std::size_t start = 0;  // of the blanks that a line break may replace
  std::string row;
  while (start < line.size()) {
    const std::size_t word = std::min(line.find_first_not_of(' ', start), line.size());
    const std::size_t end = std::min(line.find(' ', word), line.size());
    const std::string_view piece = line.substr(start, end - start);
    if (word == line.size()) break;
    const bool isIndent = row.find_first_not_of(' ') == row.npos;
    if (!isIndent && columnsOf(row) + columnsOf(piece) > columns) {
      output += row + '\n';
      row = std::string(indent, ' ').append(line.substr(word, end - word));
    } else {
      row += piece;
    }
    start = end;
  }
  output += row;
}

}  // namespace

std::string wrappedText(std::string_view text, std::size_t columns) {
  std::string output;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    appendWrapped(output, text.substr(start, end - start), columns);
    if (end < text.size()) output += '\n';
    start = end + 1;
  }
  return output;
}

}  // namespace keel
