// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/string.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_map>

namespace keel {
namespace {

TEST(String, NullDiffersFromEmpty) {
  EXPECT_TRUE(String().isNull());
  EXPECT_TRUE(String(nullptr).isNull());
  EXPECT_FALSE(String("").isNull());
  EXPECT_FALSE(String() == String(""));
  EXPECT_TRUE(String() == String(nullptr));
}

TEST(String, ComparesByBytes) {
  const std::string text = "a longer name than fits in a register";
  EXPECT_TRUE(String(text) == String(text));
  EXPECT_FALSE(String("a") == String("b"));
  EXPECT_FALSE(String("a") == String(std::string_view("a\0b", 3)));
  EXPECT_FALSE(String("\u00e9") == String("e\u0301"));
}

TEST(String, IsMadeFromEveryKindOfTextWithoutACast) {
  const auto textOf = [](String text) { return std::string(text.view()); };
  const std::string text("a\0b", 3);
  EXPECT_EQ(textOf(text), text);
  EXPECT_EQ(textOf(text + "c"), text + "c");
  EXPECT_EQ(textOf(std::string_view(text)), text);
  EXPECT_EQ(textOf(text.c_str()), "a");
  EXPECT_EQ(textOf("literal"), "literal");
}

TEST(StringView, IncludesZeroBytes) {
  const std::string_view text("a\0b", 3);
  EXPECT_EQ(String(text).view(), text);
  EXPECT_EQ(String().view(), "");
}

TEST(StringHash, IsZeroForNullOnly) {
  EXPECT_EQ(String().hash(), 0U);
  EXPECT_NE(String("").hash(), 0U);
  EXPECT_EQ(String("name").hash(), String("name").hash());
  EXPECT_NE(String("name").hash(), String("names").hash());
}

TEST(StringHash, CanBeTheKeyOfAHashTable) {
  std::unordered_map<String, int, StringHash> numbers{{"one", 1}, {"two", 2}};
  EXPECT_EQ(numbers.at("two"), 2);
  EXPECT_FALSE(numbers.contains("three"));
}

TEST(String, EmptyTextsShareOneBuffer) {
  const String first("");
  const std::size_t before = Buffer::liveBytes();
  const String second(std::string_view{});
  EXPECT_EQ(Buffer::liveBytes(), before);
  EXPECT_TRUE(first == second);
}

}  // namespace
}  // namespace keel
