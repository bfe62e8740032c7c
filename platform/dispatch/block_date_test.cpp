// SPDX-License-Identifier: Apache-2.0
#include "platform/dispatch/block_date.h"

#include <gtest/gtest.h>

#include "platform/dispatch/manual_executor.h"
#include "platform/dispatch/serial_queue.h"

namespace keel {
namespace {

// Returns when the clock shows another time than `date`, which it does after less than a microsecond.
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

TEST(DateOfBlock, IsReadAnewInTheNextBlockOfTheTurn) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("test", executor);
  Date first;
  Date second;
  queue->async([&first] {
    first = dateOfBlock();
    letTheClockPass(first);
  });
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
