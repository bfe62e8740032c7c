// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_clock.h"

#include <gtest/gtest.h>

#include <vector>

#include "runtime/dispatch/block_batch.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/serial_queue.h"

namespace keel {
namespace {

// Returns once the clock reads another time than `date`: within a microsecond.
void awaitNextTick(Date date) {
  while (Date::now() == date) {
  }
}

TEST(BlockClock, KeepsItsDateWithinABlock) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  Date first;
  Date second;
  queue->async([&first, &second] {
    first = BlockClock::now();
    awaitNextTick(first);
    second = BlockClock::now();
  });
  executor.runAll();
  EXPECT_NE(first.secondsSinceEpoch, 0);
  EXPECT_EQ(first, second);
}

TEST(BlockClock, RefreshesAfterEnoughBlocksOfABatch) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  std::vector<Date> dates;
  for (std::size_t i = 0; i <= BlockClock::kBlocksPerReading; ++i) {
    queue->async([&dates] {
      dates.push_back(BlockClock::now());
      awaitNextTick(dates.back());
    });
  }
  ASSERT_TRUE(executor.runOne());
  ASSERT_EQ(dates.size(), BlockClock::kBlocksPerReading + 1);
  EXPECT_EQ(dates[BlockClock::kBlocksPerReading - 1], dates[0]);
  EXPECT_NE(dates[BlockClock::kBlocksPerReading], dates[0]);
}

TEST(BlockClock, RefreshesWithinABlockThatDoesTheWorkOfMany) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  std::vector<Date> dates;
  queue->async([&dates] {
    for (const std::size_t done : {std::size_t{0}, BlockClock::kBlocksPerReading - 1,
                                   std::size_t{1}, BlockClock::kBlocksPerReading + 5}) {
      BlockClock::age(done);
      dates.push_back(BlockClock::now());
      awaitNextTick(dates.back());
    }
  });
  executor.runAll();
  ASSERT_EQ(dates.size(), 4u);
  EXPECT_EQ(dates[1], dates[0]);
  EXPECT_NE(dates[2], dates[0]);
  EXPECT_NE(dates[3], dates[2]);
}

TEST(BlockClock, AgingOutsideABatchHasNoEffect) {
  BlockClock::age(2 * BlockClock::kBlocksPerReading);
  const Date first = BlockClock::now();
  awaitNextTick(first);
  EXPECT_NE(BlockClock::now(), first);
}

TEST(BlockClock, RefreshesInTheNextBatch) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  Date first;
  Date second;
  queue->async([&first] {
    first = BlockClock::now();
    awaitNextTick(first);
  });
  ASSERT_TRUE(executor.runOne());
  queue->async([&second] { second = BlockClock::now(); });
  ASSERT_TRUE(executor.runOne());
  EXPECT_NE(first, second);
}

TEST(BlockClock, ReadsTheClockOnEachCallOutsideABatch) {
  const Date first = BlockClock::now();
  awaitNextTick(first);
  EXPECT_NE(BlockClock::now(), first);
}

TEST(BlockClock, ReadsTheClockOnEachCallAfterABatch) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  queue->async([] { BlockClock::now(); });
  executor.runAll();
  const Date first = BlockClock::now();
  awaitNextTick(first);
  EXPECT_NE(BlockClock::now(), first);
}

}  // namespace
}  // namespace keel
