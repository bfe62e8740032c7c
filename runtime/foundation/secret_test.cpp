// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/secret.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <utility>

namespace keel {
namespace {

TEST(Secret, HoldsItsText) {
  const Secret secret("pass!");
  EXPECT_EQ(secret.text(), "pass!");
  EXPECT_EQ(Secret(std::string_view("a\0b", 3)).text(), std::string_view("a\0b", 3));
}

TEST(Secret, MayBeEmpty) {
  EXPECT_EQ(Secret().text(), "");
  EXPECT_EQ(Secret("").text(), "");
}

TEST(Secret, ShrinkWipesTheRest) {
  Secret secret("password");
  const std::span<std::byte> all = secret.bytes();
  secret.shrink(4);
  EXPECT_EQ(secret.text(), "pass");
  EXPECT_TRUE(
      std::ranges::all_of(all.subspan(4), [](std::byte byte) { return byte == std::byte{0}; }));
  secret.shrink(8);
  EXPECT_EQ(secret.text(), "pass");
}

TEST(Secret, MovesWithoutACopy) {
  Secret first("one");
  const auto* place = first.text().data();
  Secret second(std::move(first));
  EXPECT_EQ(second.text().data(), place);
  Secret third("three");
  third = std::move(second);
  EXPECT_EQ(third.text(), "one");
  EXPECT_EQ(third.text().data(), place);
}

TEST(Secret, WipeOverwritesWithZeros) {
  std::array<std::byte, 8> bytes;
  bytes.fill(std::byte{7});
  wipe(std::span(bytes).subspan(2, 4));
  EXPECT_EQ(std::ranges::count(bytes, std::byte{0}), 4);
  EXPECT_EQ(bytes[1], std::byte{7});
  EXPECT_EQ(bytes[6], std::byte{7});
}

}  // namespace
}  // namespace keel
