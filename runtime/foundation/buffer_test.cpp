// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>
#include <vector>

#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

TEST(BufferCopyOf, HoldsItsOwnCopy) {
  std::vector<std::byte> source = bytesOfHex("010203");
  const BufferRef buffer = Buffer::copyOf(source);
  source[0] = std::byte{0xff};
  EXPECT_EQ(hexOf(buffer->bytes()), "010203");
  EXPECT_EQ(buffer->size(), 3U);
  EXPECT_EQ(buffer->sealedFile(), -1);
}

TEST(BufferCopyOf, CopyingNoBytesYieldsAnEmptyBuffer) {
  const BufferRef buffer = Buffer::copyOf({});
  ASSERT_TRUE(buffer);
  EXPECT_TRUE(buffer->bytes().empty());
}

TEST(BufferMake, HoldsTheBytesThatFillWrote) {
  const BufferRef buffer =
      Buffer::make(4, [](std::byte* bytes) { std::fill_n(bytes, 4, std::byte{0xab}); });
  EXPECT_EQ(hexOf(buffer->bytes()), "abababab");
}

TEST(BufferMake, AThrowingFillLeaksNothing) {
  const std::size_t before = Buffer::liveBytes();
  EXPECT_THROW(Buffer::make(100, [](std::byte*) { throw 1; }), int);
  EXPECT_EQ(Buffer::liveBytes(), before);
}

TEST(BufferRef, CopiesShareOneBuffer) {
  const BufferRef first = Buffer::copyOf(bytesOfHex("01"));
  const BufferRef second = first;
  EXPECT_TRUE(first == second);
  EXPECT_EQ(first.get(), second.get());
}

TEST(BufferRef, BuffersWithEqualBytesAreNotIdentical) {
  EXPECT_FALSE(Buffer::copyOf(bytesOfHex("01")) == Buffer::copyOf(bytesOfHex("01")));
}

TEST(BufferRef, AMovedFromReferenceIsNull) {
  BufferRef first = Buffer::copyOf(bytesOfHex("01"));
  const BufferRef second = std::move(first);
  EXPECT_FALSE(first);
  EXPECT_TRUE(second);
}

TEST(BufferRef, SelfAssignmentKeepsTheBuffer) {
  BufferRef buffer = Buffer::copyOf(bytesOfHex("0102"));
  const BufferRef& same = buffer;
  buffer = same;
  EXPECT_EQ(hexOf(buffer->bytes()), "0102");
}

TEST(BufferHash, DependsOnTheBytesAlone) {
  const BufferRef first = Buffer::copyOf(bytesOfHex("010203"));
  EXPECT_EQ(first->hash(), Buffer::copyOf(bytesOfHex("010203"))->hash());
  EXPECT_EQ(first->hash(), first->hash());
}

TEST(BufferHash, DiffersForEveryLengthOfZeros) {
  std::set<std::uint64_t> hashes;
  for (std::size_t size = 0; size < 100; ++size) {
    hashes.insert(Buffer::copyOf(std::vector<std::byte>(size))->hash());
  }
  EXPECT_EQ(hashes.size(), 100U);
  EXPECT_FALSE(hashes.contains(0));
}

TEST(BufferLiveBytes, CountsBytesAndHeaderUntilTheLastReferenceIsReleased) {
  const std::size_t before = Buffer::liveBytes();
  BufferRef first = Buffer::copyOf(std::vector<std::byte>(1000));
  EXPECT_EQ(Buffer::liveBytes(), before + 1000 + sizeof(Buffer));
  BufferRef second = first;
  first = BufferRef();
  EXPECT_EQ(Buffer::liveBytes(), before + 1000 + sizeof(Buffer));
  second = BufferRef();
  EXPECT_EQ(Buffer::liveBytes(), before);
}

TEST(BufferLiveBytes, IsExactAfterThreadsShareAndRelease) {
  const std::size_t before = Buffer::liveBytes();
  {
    const BufferRef shared = Buffer::copyOf(std::vector<std::byte>(64, std::byte{7}));
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([shared] {
        for (int round = 0; round < 1000; ++round) {
          const BufferRef copy = shared;
          const BufferRef own = Buffer::copyOf(copy->bytes());
          EXPECT_EQ(own->hash(), copy->hash());
        }
      });
    }
  }
  EXPECT_EQ(Buffer::liveBytes(), before);
}

TEST(MemoryAccount, ATotalFollowsItsAccountsInSteps) {
  constexpr std::size_t kStep = MemoryAccount::kStepBytes;
  MemoryAccount total;
  MemoryAccount first(total);
  MemoryAccount second(total);
  first.charge(kStep);
  EXPECT_EQ(total.bytes(), 0u);
  first.charge(1);
  EXPECT_EQ(total.bytes(), kStep + 1);
  second.charge(10 * kStep);
  EXPECT_EQ(total.bytes(), 11 * kStep + 1);
  second.refund(kStep);
  EXPECT_EQ(total.bytes(), 11 * kStep + 1);
  second.refund(9 * kStep);
  EXPECT_EQ(total.bytes(), kStep + 1);
  first.refund(kStep + 1);
  EXPECT_EQ(total.bytes(), 0u);
}

}  // namespace
}  // namespace keel
