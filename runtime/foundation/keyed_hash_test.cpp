// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/keyed_hash.h"

#include <gtest/gtest.h>

#include <vector>

#include "runtime/foundation/sip_hash.h"

namespace keel {
namespace {

// Returns the bytes 00 01 02 ..., `size` of them.
std::vector<std::byte> counting(std::size_t size) {
  std::vector<std::byte> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::byte>(i);
  return bytes;
}

// The published test vectors of SipHash-2-4: key 00..0f, inputs of 0 to 15 bytes.
TEST(SipHash, MatchesThePublishedVectorsOfSipHash24) {
  constexpr HashKey kKey{0x0706050403020100, 0x0f0e0d0c0b0a0908};
  constexpr std::uint64_t kExpected[] = {
      0x726fdb47dd0e0e31, 0x74f839c593dc67fd, 0x0d6c8009d9a94f5a, 0x85676696d7fb7e2d,
      0xcf2794e0277187b7, 0x18765564cd99a68d, 0xcbc9466e58fee3ce, 0xab0200f58b01d137,
      0x93f5f5799a932462, 0x9e0082df0ba9e4b0, 0x7a5dbbc594ddb9f3, 0xf4b32f46226bada7,
      0x751e8fbc860ee5fb, 0x14ea5627c0843d90, 0xf723ca908e7af2ee, 0xa129ca6149be45e5};
  for (std::size_t size = 0; size < std::size(kExpected); ++size) {
    EXPECT_EQ((SipHash<2, 4>::of(counting(size), kKey)), kExpected[size]) << size;
  }
}

// The values that Python 3.11 returns for hash(bytes(range(size))) with PYTHONHASHSEED=0, which is
// SipHash-1-3 with a key of zeros.
TEST(SipHash13, MatchesPythonsHashOfBytes) {
  struct Row {
    std::size_t size;
    std::uint64_t hash;
  };
  constexpr Row kRows[] = {
      {1, 0x68a914128e01e473},  {2, 0x010bac45c41e3669},  {3, 0x4d4c9a4a8ef6e0ad},
      {7, 0x2f098ab0c751325a},  {8, 0xead411e67ebe2eea},  {9, 0x75927f9d95124362},
      {15, 0xf30eb725bb91c9ea}, {16, 0x8972188433a5c5b7}, {17, 0x4883c49a2c009c1d},
      {63, 0x385d3e39e5f37359}, {64, 0x75e05fd5bbc870c6}, {100, 0x1c6a66e1506e7908},
  };
  for (const Row& row : kRows)
    EXPECT_EQ(sipHash13(counting(row.size), HashKey{0, 0}), row.hash) << row.size;
}

TEST(SipHash13, DependsOnBothHalvesOfTheKey) {
  const auto bytes = counting(20);
  EXPECT_NE(sipHash13(bytes, {1, 2}), sipHash13(bytes, {1, 3}));
  EXPECT_NE(sipHash13(bytes, {1, 2}), sipHash13(bytes, {0, 2}));
}

TEST(ProcessHashKey, IsConstantAndNotZero) {
  const HashKey first = processHashKey();
  EXPECT_EQ(first, processHashKey());
  EXPECT_NE(first, (HashKey{0, 0}));
}

}  // namespace
}  // namespace keel
