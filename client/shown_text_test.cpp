// SPDX-License-Identifier: Apache-2.0
#include "client/shown_text.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

TEST(ShownText, PlainTextIsUnchanged) {
  EXPECT_EQ(shownText("Zürich 12:30", 40), "Zürich 12:30");
}

TEST(ShownText, ControlsAreEscaped) {
  EXPECT_EQ(shownText("a\nb\tc\rd", 40), "a\\nb\\tc\\rd");
  EXPECT_EQ(shownText("\x1b[2J", 40), "\\u{1b}[2J");
  EXPECT_EQ(shownText("\xc2\x9b", 40), "\\u{9b}");
}

TEST(ShownText, InvisibleAndBidirectionalCharactersAreEscaped) {
  EXPECT_EQ(shownText("a\u202eb", 40), "a\\u{202e}b");
  EXPECT_EQ(shownText("a\u200bb", 40), "a\\u{200b}b");
}

TEST(ShownText, BytesThatAreNotUtf8AreEscaped) {
  EXPECT_EQ(shownText("a\xff\xc3", 40), "a\\xff\\xc3");
}

TEST(ShownText, FortyColumnsFitAndFortyOneAreTruncated) {
  EXPECT_EQ(shownText(std::string(40, 'x'), 40), std::string(40, 'x'));
  EXPECT_EQ(shownText(std::string(41, 'x'), 40), std::string(26, 'x') + "... (41 bytes)");
}

TEST(ShownText, LongTextIsTruncatedAtAWholeCharacterWithItsLength) {
  std::string wide;
  for (int i = 0; i < 100; ++i) wide += "中";
  const std::string shown = shownText(wide, 30);
  EXPECT_TRUE(shown.ends_with("... (300 bytes)"));
  EXPECT_LE(columnsOf(shown), 30U);
  EXPECT_GE(columnsOf(shown), 28U);
}

TEST(QuotedText, EmptyTextIsVisible) {
  EXPECT_EQ(quotedText(""), "\"\"");
}

TEST(ColumnsOf, WideCharactersCountTwoAndCombiningOnesNone) {
  EXPECT_EQ(columnsOf("ab"), 2U);
  EXPECT_EQ(columnsOf("中a"), 3U);
  EXPECT_EQ(columnsOf("e\u0301"), 1U);
}

TEST(ColumnsOf, CharactersOfEveryScriptCountAsInTerminals) {
  EXPECT_EQ(columnsOf("✅"), 2U);
  EXPECT_EQ(columnsOf("⚡"), 2U);
  EXPECT_EQ(columnsOf("🫠"), 2U);
  EXPECT_EQ(columnsOf("🚀x"), 3U);
  EXPECT_EQ(columnsOf("क्ष"), 2U);
  EXPECT_EQ(columnsOf("é"), 1U);
  EXPECT_EQ(columnsOf("→"), 1U);
}

TEST(ShownText, ACharacterOfUnknownWidthIsEscaped) {
  EXPECT_EQ(shownText("a\u0378", 40), "a\\u{378}");
}

}  // namespace
}  // namespace keel
