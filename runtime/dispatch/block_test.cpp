// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

namespace keel {
namespace {

// Counts its living instances and records the address at which it was called.
template <std::size_t kBytes>
struct Probe {
  Probe() { ++alive; }
  Probe(const Probe&) { ++alive; }
  Probe(Probe&&) noexcept { ++alive; }
  Probe& operator=(const Probe&) = delete;
  ~Probe() { --alive; }
  void operator()() { calledAt = this; }

  std::array<std::byte, kBytes> padding{};
  static inline int alive = 0;
  static inline const void* calledAt = nullptr;
};

template <class Callable>
bool runsInline(Block& block) {
  block();
  const std::less<const void*> before;
  return !before(Callable::calledAt, &block) && before(Callable::calledAt, &block + 1);
}

// Has a move constructor that may throw, and counts moves.
struct Reluctant {
  explicit Reluctant(int& count) : moveCount(count) {}
  Reluctant(Reluctant&& other) noexcept(false) : moveCount(other.moveCount) { ++moveCount; }
  void operator()() const {}
  int& moveCount;
};

TEST(Block, IsEmptyByDefault) {
  EXPECT_FALSE(Block());
}

TEST(Block, RunsItsCallableOnEachCall) {
  int count = 0;
  Block block([&count] { ++count; });
  ASSERT_TRUE(block);
  block();
  block();
  EXPECT_EQ(count, 2);
}

TEST(Block, AcceptsMoveOnlyCallables) {
  int seen = 0;
  Block block([&seen, number = std::make_unique<int>(7)] { seen = *number; });
  Block moved(std::move(block));
  moved();
  EXPECT_EQ(seen, 7);
}

TEST(Block, CopiesAnLvalueCallable) {
  int count = 0;
  const auto callable = [&count] { ++count; };
  Block block(callable);
  block();
  callable();
  EXPECT_EQ(count, 2);
}

TEST(Block, StoresACallableOfTheInlineSizeInline) {
  static_assert(sizeof(Probe<Block::kInlineBytes>) == Block::kInlineBytes);
  Block block{Probe<Block::kInlineBytes>()};
  EXPECT_TRUE(runsInline<Probe<Block::kInlineBytes>>(block));
}

TEST(Block, StoresALargerCallableOnTheHeap) {
  Block block{Probe<Block::kInlineBytes + 1>()};
  EXPECT_FALSE(runsInline<Probe<Block::kInlineBytes + 1>>(block));
}

TEST(Block, NeverMovesACallableWhoseMoveMayThrow) {
  int moveCount = 0;
  Block block{Reluctant(moveCount)};
  const int once = moveCount;
  Block moved(std::move(block));
  moved();
  EXPECT_EQ(moveCount, once);
}

template <class Callable>
void destroysExactlyOnce() {
  ASSERT_EQ(Callable::alive, 0);
  {
    Block block{Callable()};
    EXPECT_EQ(Callable::alive, 1);
    Block moved(std::move(block));
    EXPECT_EQ(Callable::alive, 1);
    block = std::move(moved);
    EXPECT_EQ(Callable::alive, 1);
    block();
    EXPECT_EQ(Callable::alive, 1);
  }
  EXPECT_EQ(Callable::alive, 0);
}

TEST(Block, DestroysAnInlineCallableExactlyOnce) {
  destroysExactlyOnce<Probe<24>>();
}

TEST(Block, DestroysAHeapCallableExactlyOnce) {
  destroysExactlyOnce<Probe<2000>>();
}

TEST(Block, IsEmptyAfterBeingMovedFrom) {
  Block block([] {});
  const Block moved(std::move(block));
  EXPECT_FALSE(block);  // NOLINT(bugprone-use-after-move): that is what is tested
  EXPECT_TRUE(moved);
}

TEST(Block, AssignmentDestroysTheOldCallable) {
  Block block{Probe<24>()};
  block = Block([] {});
  EXPECT_EQ(Probe<24>::alive, 0);
  EXPECT_TRUE(block);
}

TEST(Block, AssignmentToItselfChangesNothing) {
  int count = 0;
  Block block([&count] { ++count; });
  Block& same = block;
  block = std::move(same);
  ASSERT_TRUE(block);
  block();
  EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace keel
