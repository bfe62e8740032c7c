// SPDX-License-Identifier: Apache-2.0
#include "tools/input_lines.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string_view>

namespace keel {
namespace {

class InputLinesTest : public testing::Test {
 protected:
  InputLinesTest() {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    reader = ends[0];
    writer = ends[1];
  }
  ~InputLinesTest() override {
    ::close(reader);
    close();
  }
  void put(std::string_view text) {
    ASSERT_EQ(::write(writer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void close() {
    if (writer >= 0) ::close(writer);
    writer = -1;
  }
  int reader = -1;
  int writer = -1;
  std::string fault;
};

TEST_F(InputLinesTest, ReturnsLinesAsTheyComplete) {
  InputLines lines(reader);
  put("one\ntw");
  ASSERT_TRUE(lines.read(fault));
  EXPECT_EQ(lines.next(), "one");
  EXPECT_EQ(lines.next(), std::nullopt);
  put("o\n");
  ASSERT_TRUE(lines.read(fault));
  EXPECT_EQ(lines.next(), "two");
  EXPECT_EQ(lines.lineNumber(), 2U);
  EXPECT_FALSE(lines.atEnd());
}

TEST_F(InputLinesTest, TheLastLineNeedsNoNewline) {
  InputLines lines(reader);
  put("one");
  close();
  ASSERT_TRUE(lines.read(fault));
  EXPECT_EQ(lines.next(), std::nullopt);
  ASSERT_TRUE(lines.read(fault));
  EXPECT_TRUE(lines.atEnd());
  EXPECT_EQ(lines.next(), "one");
  EXPECT_EQ(lines.next(), std::nullopt);
}

TEST_F(InputLinesTest, EmptyLinesAreSkippedButCounted) {
  InputLines lines(reader);
  put("\n  \r\n\tx\n");
  ASSERT_TRUE(lines.read(fault));
  EXPECT_EQ(lines.next(), "\tx");
  EXPECT_EQ(lines.lineNumber(), 3U);
}

TEST_F(InputLinesTest, UnreadableInputIsReported) {
  InputLines lines(-1);
  EXPECT_FALSE(lines.read(fault));
  EXPECT_NE(fault.find("standard input"), std::string::npos);
}

}  // namespace
}  // namespace keel
