// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/random_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace keel {
namespace {

TEST(RandomBytes, FillsTheWholeSpan) {
  // Fails by chance once in 2^128.
  const std::vector<std::byte> zeros(16);
  for (const std::size_t size : {16u, 256u, 257u, 1000u}) {
    std::vector<std::byte> bytes(size);
    ASSERT_EQ(SecRandomCopyBytes(bytes), 0);
    for (std::size_t at = 0; at + zeros.size() <= size; at += zeros.size()) {
      EXPECT_FALSE(
          std::equal(zeros.begin(), zeros.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at)))
          << size << " " << at;
    }
  }
}

TEST(RandomBytes, DiffersOnEachCall) {
  std::vector<std::byte> one(16);
  std::vector<std::byte> two(16);
  ASSERT_EQ(SecRandomCopyBytes(one), 0);
  ASSERT_EQ(SecRandomCopyBytes(two), 0);
  EXPECT_NE(one, two);
  EXPECT_EQ(SecRandomCopyBytes({}), 0);
}

}  // namespace
}  // namespace keel
