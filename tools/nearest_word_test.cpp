// SPDX-License-Identifier: Apache-2.0
#include "tools/nearest_word.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

const std::vector<std::string> kWords = {"publish", "update", "subscribe",
                                         "dump",    "digest", "list"};

TEST(NearestWord, OneTypoOfEachKindIsNear) {
  EXPECT_EQ(nearestWord("subscibe", kWords), "subscribe");
  EXPECT_EQ(nearestWord("subscrribe", kWords), "subscribe");
  EXPECT_EQ(nearestWord("dunp", kWords), "dump");
  EXPECT_EQ(nearestWord("pubilsh", kWords), "publish");
}

TEST(NearestWord, APrefixMatchesItsWord) {
  EXPECT_EQ(nearestWord("sub", kWords), "subscribe");
}

TEST(NearestWord, TwoTyposNeedSixLetters) {
  EXPECT_EQ(nearestWord("dugesy", kWords), "digest");
  EXPECT_EQ(nearestWord("dgset", kWords), "");
}

TEST(NearestWord, AnotherWordIsNotNear) {
  EXPECT_EQ(nearestWord("frobnicate", kWords), "");
  EXPECT_EQ(nearestWord("x", {"y"}), "");
  EXPECT_EQ(nearestWord("", kWords), "");
  EXPECT_EQ(nearestWord(std::string(1u << 20, 's'), kWords), "");
}

}  // namespace
}  // namespace keel
