// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/printable_text.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

std::string printable(std::string_view text) {
  std::string line;
  EXPECT_TRUE(appendPrintable(line, text, 1000));
  return line;
}

TEST(AppendPrintable, OrdinaryTextIsUnchanged) {
  EXPECT_EQ(printable("Größe \\ 5\u20ac \U0001f600~"), "Größe \\ 5\u20ac \U0001f600~");
}

TEST(AppendPrintable, ControlCharactersAreEscaped) {
  EXPECT_EQ(printable("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(printable("\x1b[2J\x07\x7f"), "\\x1b[2J\\x07\\x7f");
  EXPECT_EQ(printable(std::string_view("\0", 1)), "\\x00");
}

TEST(AppendPrintable, C1ControlsInUtf8AreEscaped) {
  EXPECT_EQ(printable("\u0080\u009b31m\u009f"), "\\u0080\\u009b31m\\u009f");
  EXPECT_EQ(printable("\u00a0"), "\u00a0");
}

TEST(AppendPrintable, BidirectionalControlsAreEscaped) {
  EXPECT_EQ(printable("\u061c\u200e\u200f"), "\\u061c\\u200e\\u200f");
  EXPECT_EQ(printable("\u202a\u202b\u202c\u202d\u202e"), "\\u202a\\u202b\\u202c\\u202d\\u202e");
  EXPECT_EQ(printable("\u2066\u2067\u2068\u2069"), "\\u2066\\u2067\\u2068\\u2069");
  EXPECT_EQ(printable("\u202f\u2065\u206a"), "\u202f\u2065\u206a");
}

TEST(AppendPrintable, LineSeparatorsAndByteOrderMarkAreEscaped) {
  EXPECT_EQ(printable("\u2028\u2029\ufeff"), "\\u2028\\u2029\\ufeff");
}

TEST(AppendPrintable, InvalidUtf8IsEscapedByteByByte) {
  EXPECT_EQ(printable("\x80"
                      "a"),
            "\\x80a");                                               // continuation alone
  EXPECT_EQ(printable("\xc3"), "\\xc3");                             // cut short
  EXPECT_EQ(printable("\xe2\x82z"), "\\xe2\\x82z");                  // broken off
  EXPECT_EQ(printable("\xc0\x9b"), "\\xc0\\x9b");                    // overlong, two bytes
  EXPECT_EQ(printable("\xe0\x80\x9b"), "\\xe0\\x80\\x9b");           // overlong, three bytes
  EXPECT_EQ(printable("\xf0\x80\x80\x9b"), "\\xf0\\x80\\x80\\x9b");  // overlong, four bytes
  EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // surrogate
  EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // above U+10FFFF
  EXPECT_EQ(printable("\xff\xfe"), "\\xff\\xfe");
}

TEST(AppendPrintable, BoundariesOfValidUtf8AreUnchanged) {
  EXPECT_EQ(printable("\u07ff\u0800\ud7ff\ue000\U00010000\U0010ffff"),
            "\u07ff\u0800\ud7ff\ue000\U00010000\U0010ffff");
}

TEST(AppendPrintable, ATextOfTheLimitIsComplete) {
  std::string line = "before ";
  EXPECT_TRUE(appendPrintable(line, "12345", 5));
  EXPECT_EQ(line, "before 12345");
}

TEST(AppendPrintable, ATextAboveTheLimitIsTruncated) {
  std::string line = "before ";
  EXPECT_FALSE(appendPrintable(line, "123456", 5));
  EXPECT_EQ(line, "before 12345");
}

TEST(AppendPrintable, NoCharacterOrEscapeIsSplit) {
  std::string line;
  EXPECT_FALSE(appendPrintable(line, "123\u20ac", 5));
  EXPECT_EQ(line, "123");
  line.clear();
  EXPECT_FALSE(appendPrintable(line, "12\x1b", 5));
  EXPECT_EQ(line, "12");
}

TEST(Utf8PrefixBytes, AShortTextIsComplete) {
  EXPECT_EQ(utf8PrefixBytes("abc", 3), 3U);
  EXPECT_EQ(utf8PrefixBytes("", 0), 0U);
}

TEST(Utf8PrefixBytes, CutsBeforeACharacter) {
  EXPECT_EQ(utf8PrefixBytes("abcd", 3), 3U);
  EXPECT_EQ(utf8PrefixBytes("a\u20ac", 3), 1U);
  EXPECT_EQ(utf8PrefixBytes("a\u20acz", 4), 4U);
  EXPECT_EQ(utf8PrefixBytes("\U0001f600", 3), 0U);
}

TEST(Utf8PrefixBytes, BytesThatAreNotTextAreCutAnywhere) {
  EXPECT_EQ(utf8PrefixBytes("\x80\x80\x80\x80\x80\x80", 5), 5U);
}

}  // namespace
}  // namespace keel
