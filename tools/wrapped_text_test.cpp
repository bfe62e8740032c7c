// SPDX-License-Identifier: Apache-2.0
#include "tools/wrapped_text.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

TEST(WrappedText, TenColumnsFitAndElevenAreWrapped) {
  EXPECT_EQ(wrappedText("abcd efghi\n", 10), "abcd efghi\n");
  EXPECT_EQ(wrappedText("abcd efghij\n", 10), "abcd\nefghij\n");
}

TEST(WrappedText, LinesAreNotJoined) {
  EXPECT_EQ(wrappedText("a\n\nb", 10), "a\n\nb");
  EXPECT_EQ(wrappedText("", 10), "");
}

TEST(WrappedText, AContinuationLineIsIndentedLikeItsLine) {
  EXPECT_EQ(wrappedText("  one two three\n", 10), "  one two\n  three\n");
}

TEST(WrappedText, AContinuationLineIsIndentedLikeItsDescription) {
  EXPECT_EQ(wrappedText("  a  one two three\n", 12), "  a  one two\n     three\n");
}

TEST(WrappedText, TrailingBlanksAreDropped) {
  EXPECT_EQ(wrappedText("  NAME TEXT      \n    \nab cd   \n", 5), "  NAME\n  TEXT\n\nab cd\n");
}

TEST(WrappedText, AWordThatIsTooLongIsNotBroken) {
  EXPECT_EQ(wrappedText("  /run/keeld/socket and more\n", 12), "  /run/keeld/socket\n  and more\n");
}

TEST(WrappedText, CountsColumnsAndNotBytes) {
  EXPECT_EQ(wrappedText("äöü äöü äöü\n", 11), "äöü äöü äöü\n");
  EXPECT_EQ(wrappedText("中文 中文\n", 8), "中文\n中文\n");
}

}  // namespace
}  // namespace keel
