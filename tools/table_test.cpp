// SPDX-License-Identifier: Apache-2.0
#include "tools/table.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <sstream>

#include "client/shown_text.h"

namespace keel {
namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

const Console kNoTerminal(-1, -1, -1);

TEST(Table, CellsAreAlignedWithoutTrailingBlanks) {
  Table table({"NAME", "X", "LAST"});
  table.add({"a", "12345", "z"});
  table.add({"longer", "", ""});
  EXPECT_EQ(table.text(kNoTerminal), "NAME    X      LAST\na       12345  z\nlonger\n");
}

TEST(Table, WideCharactersKeepTheColumns) {
  Table table({"NAME", "X"});
  table.add({"中文", "1"});
  table.add({"abcd", "2"});
  EXPECT_EQ(table.text(kNoTerminal), "NAME  X\n中文  1\nabcd  2\n");
}

TEST(Table, SymbolsKeepTheColumns) {
  Table table({"NAME", "X"});
  table.add({"✅🫠", "1"});
  table.add({"नमस्ते", "2"});
  table.add({"abcd", "3"});
  EXPECT_EQ(table.text(kNoTerminal), "NAME  X\n✅🫠  1\nनमस्ते  2\nabcd  3\n");
}

TEST(Table, ControlsAndNewlinesAreEscaped) {
  Table table({"NAME", "X"});
  table.add({"a\nb\x1b[31m", "\r\t"});
  const auto lines = linesOf(table.text(kNoTerminal));
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1], "a\\nb\\u{1b}[31m  \\r\\t");
}

TEST(Table, LongCellsAreTruncatedWithTheirLength) {
  Table table({"NAME", "X"});
  table.add({std::string(1u << 20, 'n'), std::string(1u << 20, 'x')});
  const auto lines = linesOf(table.text(kNoTerminal));
  EXPECT_THAT(lines[1], testing::HasSubstr("... (1048576 bytes)"));
  EXPECT_LE(columnsOf(lines[1]), Table::kCellColumns + 2 + Table::kLastCellColumns);
}

}  // namespace
}  // namespace keel
