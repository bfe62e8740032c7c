// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/name_cache.h"

#include <gtest/gtest.h>

#include <string>

namespace keel::xpc {
namespace {

TEST(NameCache, EqualTextsShareOneBuffer) {
  NameCache names;
  const String first = names.nameOf("a.name.of.some.length");
  const String again = names.nameOf("a.name.of.some.length");
  EXPECT_EQ(first.view(), "a.name.of.some.length");
  EXPECT_EQ(first.view().data(), again.view().data());
}

TEST(NameCache, ReturnsEveryTextUnchanged) {
  NameCache names;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 500; ++i) {
      // Many that collide, and some that differ in the middle alone.
      const std::string text = "beginning " + std::to_string(i) + " and its end";
      EXPECT_EQ(names.nameOf(text).view(), text);
    }
  }
  EXPECT_EQ(names.nameOf("").view(), "");
  EXPECT_FALSE(names.nameOf("").isNull());
  EXPECT_EQ(names.nameOf(std::string_view("\0", 1)).view(), std::string_view("\0", 1));
  EXPECT_EQ(names.nameOf(std::string(NameCache::kLongestBytes, 'x')).view().size(),
            NameCache::kLongestBytes);
}

TEST(NameCache, ReturnsShortTextsOfEveryLength) {
  NameCache names;
  std::string text;
  for (int round = 0; round < 2; ++round) {
    for (text.clear(); text.size() < 20; text.push_back(static_cast<char>('a' + text.size()))) {
      EXPECT_EQ(names.nameOf(text).view(), text);
    }
  }
}

TEST(NameCacheDeathTest, ATextOverTheLimitAborts) {
  NameCache names;
  EXPECT_DEATH(names.nameOf(std::string(NameCache::kLongestBytes + 1, 'x')), "");
}

}  // namespace
}  // namespace keel::xpc
