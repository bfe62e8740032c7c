// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_date.h"

#include <gtest/gtest.h>

#include <vector>

#include "runtime/dispatch/block_batch.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/serial_queue.h"

namespace keel {
namespace {

// Returns when the clock shows another time than `date`, which it does after less than a
// microsecond.
void letTheClockPass(Date date) {
  while (Date::now() == date) {
  }
}

TEST(DateOfBlock, StaysTheSameWithinABlock) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  Date first;
  Date second;
  queue->async([&first, &second] {
    first = dateOfBlock();
    letTheClockPass(first);
    second = dateOfBlock();
  });
  executor.runAll();
  EXPECT_NE(first.secondsSinceEpoch, 0);
  EXPECT_EQ(first, second);
}

TEST(DateOfBlock, IsReadAnewAfterAFewBlocksOfTheTurn) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  std::vector<Date> dates;
  for (std::size_t i = 0; i <= kBlocksPerDate; ++i) {
    queue->async([&dates] {
      dates.push_back(dateOfBlock());
      letTheClockPass(dates.back());
    });
  }
  ASSERT_TRUE(executor.runOne());
  ASSERT_EQ(dates.size(), kBlocksPerDate + 1);
  EXPECT_EQ(dates[kBlocksPerDate - 1], dates[0]);
  EXPECT_NE(dates[kBlocksPerDate], dates[0]);
}

TEST(DateOfBlock, IsReadAnewInABlockThatDoesAsMuchAsAFew) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  std::vector<Date> dates;
  queue->async([&dates] {
    for (const std::size_t done :
         {std::size_t{0}, kBlocksPerDate - 1, std::size_t{1}, kBlocksPerDate + 5}) {
      ageDateOfBlock(done);
      dates.push_back(dateOfBlock());
      letTheClockPass(dates.back());
    }
  });
  executor.runAll();
  ASSERT_EQ(dates.size(), 4u);
  EXPECT_EQ(dates[1], dates[0]);
  EXPECT_NE(dates[2], dates[0]);
  EXPECT_NE(dates[3], dates[2]);
}

TEST(DateOfBlock, DoesNotAgeOutsideABlock) {
  ageDateOfBlock(2 * kBlocksPerDate);
  const Date first = dateOfBlock();
  letTheClockPass(first);
  EXPECT_NE(dateOfBlock(), first);
}

TEST(DateOfBlock, IsReadAnewInTheNextTurn) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  Date first;
  Date second;
  queue->async([&first] {
    first = dateOfBlock();
    letTheClockPass(first);
  });
  ASSERT_TRUE(executor.runOne());
  queue->async([&second] { second = dateOfBlock(); });
  ASSERT_TRUE(executor.runOne());
  EXPECT_NE(first, second);
}

TEST(DateOfBlock, IsReadOnEachCallOutsideABlock) {
  const Date first = dateOfBlock();
  letTheClockPass(first);
  EXPECT_NE(dateOfBlock(), first);
}

TEST(DateOfBlock, IsReadOnEachCallAgainAfterATurn) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  queue->async([] { dateOfBlock(); });
  executor.runAll();
  const Date first = dateOfBlock();
  letTheClockPass(first);
  EXPECT_NE(dateOfBlock(), first);
}

}  // namespace
}  // namespace keel
