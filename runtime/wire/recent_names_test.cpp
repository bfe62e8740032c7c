// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/recent_names.h"

#include <gtest/gtest.h>

#include <string>

namespace keel::xpc {
namespace {

TEST(RecentNames, TheSameTextIsTheSameBuffer) {
  RecentNames names;
  const String first = names.of("a.name.of.some.length");
  const String again = names.of("a.name.of.some.length");
  EXPECT_EQ(first.view(), "a.name.of.some.length");
  EXPECT_EQ(first.view().data(), again.view().data());
}

TEST(RecentNames, EveryTextComesBackAsItIs) {
  RecentNames names;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 500; ++i) {
      // Many that share a place, and some that differ in the middle alone.
      const std::string text = "beginning " + std::to_string(i) + " and its end";
      EXPECT_EQ(names.of(text).view(), text);
    }
  }
  EXPECT_EQ(names.of("").view(), "");
  EXPECT_FALSE(names.of("").isNull());
  EXPECT_EQ(names.of(std::string_view("\0", 1)).view(), std::string_view("\0", 1));
  EXPECT_EQ(names.of(std::string(RecentNames::kLongestBytes, 'x')).view().size(), RecentNames::kLongestBytes);
}

TEST(RecentNames, ShortTextsOfEveryLength) {
  RecentNames names;
  std::string text;
  for (int round = 0; round < 2; ++round) {
    for (text.clear(); text.size() < 20; text.push_back(static_cast<char>('a' + text.size()))) {
      EXPECT_EQ(names.of(text).view(), text);
    }
  }
}

TEST(RecentNamesDeathTest, LongerTextIsAMistake) {
  RecentNames names;
  EXPECT_DEATH(names.of(std::string(RecentNames::kLongestBytes + 1, 'x')), "");
}

}  // namespace
}  // namespace keel::xpc
