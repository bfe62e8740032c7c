// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/serial_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/reactor.h"

namespace keel {
namespace {

using testing::ElementsAre;

class SerialQueueTest : public testing::Test {
 protected:
  ManualExecutor executor_;
  std::shared_ptr<SerialQueue> queue_ = SerialQueue::create("test", executor_);
  std::vector<int> ran_;
};

// Runs `action` when the last copy of it is destroyed.
template <class Action>
std::shared_ptr<void> whenDestroyed(Action action) {
  return {nullptr, [action](void*) { action(); }};
}

// Accepts queues and never runs them.
class IdleExecutor final : public Executor {
 public:
  void schedule(std::shared_ptr<SerialQueue>) override {}
};

TEST_F(SerialQueueTest, KeepsItsLabel) {
  EXPECT_EQ(queue_->label(), "test");
}

TEST_F(SerialQueueTest, DoesNotRunABlockWithinAsync) {
  queue_->async([this] { ran_.push_back(1); });
  EXPECT_THAT(ran_, ElementsAre());
}

TEST_F(SerialQueueTest, RunsBlocksInOrderInOneBatch) {
  for (int i = 0; i < 3; ++i) queue_->async([this, i] { ran_.push_back(i); });
  EXPECT_EQ(executor_.scheduledCount(), 1U);
  EXPECT_TRUE(executor_.runOne());
  EXPECT_THAT(ran_, ElementsAre(0, 1, 2));
  EXPECT_EQ(executor_.scheduledCount(), 0U);
}

TEST_F(SerialQueueTest, SequenceNumbersShowWhetherABlockIsStillTheLast) {
  const std::uint64_t first = queue_->async([] {});
  EXPECT_EQ(queue_->lastSequenceNumber(), first);
  EXPECT_TRUE(executor_.runOne());
  EXPECT_EQ(queue_->lastSequenceNumber(), first);
  queue_->asyncOn(executor_, [] {});
  EXPECT_NE(queue_->lastSequenceNumber(), first);
  const std::uint64_t third = queue_->async([] {});
  EXPECT_NE(third, first);
  EXPECT_EQ(queue_->lastSequenceNumber(), third);
  executor_.runAll();
}

TEST_F(SerialQueueTest, RunsBlocksSubmittedByABlockInTheNextBatch) {
  queue_->async([this] {
    queue_->async([this] { ran_.push_back(3); });
    ran_.push_back(1);
  });
  queue_->async([this] { ran_.push_back(2); });
  executor_.runOne();
  EXPECT_THAT(ran_, ElementsAre(1, 2));
  EXPECT_EQ(executor_.scheduledCount(), 1U);
  executor_.runOne();
  EXPECT_THAT(ran_, ElementsAre(1, 2, 3));
  EXPECT_EQ(executor_.scheduledCount(), 0U);
}

TEST_F(SerialQueueTest, IsScheduledAgainAfterItRanEmpty) {
  queue_->async([this] { ran_.push_back(1); });
  executor_.runAll();
  queue_->async([this] { ran_.push_back(2); });
  EXPECT_EQ(executor_.scheduledCount(), 1U);
  executor_.runAll();
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(SerialQueueTest, ABlockOnAnotherExecutorKeepsItsPlaceInTheOrder) {
  ManualExecutor elsewhere;
  queue_->async([this] { ran_.push_back(1); });
  queue_->asyncOn(elsewhere, [this] {
    EXPECT_TRUE(queue_->isCurrent());
    ran_.push_back(2);
  });
  queue_->async([this] { ran_.push_back(3); });
  queue_->async([this] { ran_.push_back(4); });
  EXPECT_FALSE(elsewhere.runOne());
  EXPECT_TRUE(executor_.runOne());
  EXPECT_THAT(ran_, ElementsAre(1));
  // Later blocks wait for it without occupying the queue's own executor.
  EXPECT_FALSE(executor_.runOne());
  EXPECT_TRUE(elsewhere.runOne());
  EXPECT_THAT(ran_, ElementsAre(1, 2));
  EXPECT_FALSE(elsewhere.runOne());
  EXPECT_TRUE(executor_.runOne());
  EXPECT_THAT(ran_, ElementsAre(1, 2, 3, 4));
}

TEST_F(SerialQueueTest, EachBlockOnAnotherExecutorIsABatchOfItsOwn) {
  ManualExecutor elsewhere;
  for (int i = 0; i < 3; ++i) queue_->asyncOn(elsewhere, [this, i] { ran_.push_back(i); });
  for (std::size_t i = 1; i <= 3; ++i) {
    EXPECT_TRUE(elsewhere.runOne());
    EXPECT_EQ(ran_.size(), i);
  }
  EXPECT_THAT(ran_, ElementsAre(0, 1, 2));
  EXPECT_FALSE(elsewhere.runOne());
  EXPECT_EQ(executor_.scheduledCount(), 0U);
}

TEST_F(SerialQueueTest, KeepsTheOrderOfBlocksSubmittedFromAnotherExecutor) {
  ManualExecutor elsewhere;
  queue_->asyncOn(elsewhere, [this, &elsewhere] {
    ran_.push_back(1);
    queue_->async([this] { ran_.push_back(3); });
    queue_->asyncOn(elsewhere, [this] { ran_.push_back(4); });
  });
  queue_->async([this] { ran_.push_back(2); });
  while (elsewhere.runOne() || executor_.runOne()) {
  }
  EXPECT_THAT(ran_, ElementsAre(1, 2, 3, 4));
}

TEST_F(SerialQueueTest, AbandonDestroysBlocksPendingForAnotherExecutor) {
  ManualExecutor elsewhere;
  int destroyed = 0;
  queue_->async([] { FAIL(); });
  queue_->asyncOn(elsewhere, [held = whenDestroyed([&destroyed] { ++destroyed; })] { FAIL(); });
  queue_->async([held = whenDestroyed([&destroyed] { ++destroyed; })] { FAIL(); });
  queue_->abandon();
  EXPECT_EQ(destroyed, 2);
}

TEST_F(SerialQueueTest, IsCurrentInItsOwnBlocksOnly) {
  const auto other = SerialQueue::create("other", executor_);
  EXPECT_FALSE(queue_->isCurrent());
  queue_->async([this, other] {
    EXPECT_TRUE(queue_->isCurrent());
    EXPECT_FALSE(other->isCurrent());
    std::thread([this] { EXPECT_FALSE(queue_->isCurrent()); }).join();
    ran_.push_back(1);
  });
  executor_.runAll();
  EXPECT_FALSE(queue_->isCurrent());
  EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(SerialQueueTest, IsCurrentAgainAfterANestedBatchOfAnotherQueue) {
  const auto other = SerialQueue::create("other", executor_);
  queue_->async([this, other] {
    other->async([this, other] {
      EXPECT_TRUE(other->isCurrent());
      EXPECT_FALSE(queue_->isCurrent());
      ran_.push_back(1);
    });
    EXPECT_TRUE(executor_.runOne());
    EXPECT_TRUE(queue_->isCurrent());
    EXPECT_FALSE(other->isCurrent());
    ran_.push_back(2);
  });
  EXPECT_TRUE(executor_.runOne());
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(SerialQueueTest, AcceptsBlocksFromTheDestructionOfABlock) {
  auto submits = whenDestroyed([this] {
    EXPECT_TRUE(queue_->isCurrent());
    queue_->async([this] { ran_.push_back(3); });
  });
  queue_->async([this, held = std::move(submits)] { ran_.push_back(1); });
  queue_->async([this] { ran_.push_back(2); });
  executor_.runAll();
  EXPECT_THAT(ran_, ElementsAre(1, 2, 3));
}

TEST_F(SerialQueueTest, MayBeReleasedByItsOwnBlock) {
  const std::weak_ptr<SerialQueue> released = queue_;
  queue_->async([this, queue = queue_]() mutable {
    queue_.reset();
    queue.reset();
    ran_.push_back(1);
  });
  executor_.runAll();
  EXPECT_THAT(ran_, ElementsAre(1));
  EXPECT_TRUE(released.expired());
}

TEST_F(SerialQueueTest, MayBeReleasedByADestructorThatSubmitsToIt) {
  const std::weak_ptr<SerialQueue> released = queue_;
  {
    auto last = whenDestroyed([this, queue = std::exchange(queue_, nullptr)] {
      queue->async([this] { ran_.push_back(2); });
    });
    released.lock()->async([this, held = std::move(last)] { ran_.push_back(1); });
  }
  executor_.runAll();
  EXPECT_THAT(ran_, ElementsAre(1, 2));
  EXPECT_TRUE(released.expired());
}

TEST_F(SerialQueueTest, DestroysItsPendingBlocks) {
  IdleExecutor idle;
  auto queue = SerialQueue::create("test", idle);
  SerialQueue* const dying = queue.get();
  int destroyed = 0;
  // The second one submits to the queue that is being destroyed.
  queue->async([held = whenDestroyed([&destroyed] { ++destroyed; })] { FAIL(); });
  queue->async([held = whenDestroyed([&destroyed, dying] {
                  dying->async([inner = whenDestroyed([&destroyed] { ++destroyed; })] { FAIL(); });
                })] { FAIL(); });
  EXPECT_EQ(destroyed, 0);
  queue.reset();
  EXPECT_EQ(destroyed, 2);
}

TEST_F(SerialQueueTest, AbandonDestroysPendingAndLaterBlocks) {
  int destroyed = 0;
  const std::weak_ptr<SerialQueue> released = queue_;
  queue_->async([queue = queue_, held = whenDestroyed([&destroyed] { ++destroyed; })] { FAIL(); });
  queue_->abandon();
  EXPECT_EQ(destroyed, 1);
  queue_->async([queue = queue_, held = whenDestroyed([&destroyed] { ++destroyed; })] { FAIL(); });
  EXPECT_EQ(destroyed, 2);
  executor_.runAll();
  queue_.reset();
  EXPECT_TRUE(released.expired());
}

TEST(ManualExecutor, ReleasesQueuesThatDidNotRun) {
  std::weak_ptr<SerialQueue> released;
  {
    ManualExecutor executor;
    const auto queue = SerialQueue::create("test", executor);
    released = queue;
    queue->async([queue] { FAIL(); });
  }
  EXPECT_TRUE(released.expired());
}

TEST(ManualExecutor, RunOneReturnsFalseWhenNothingIsScheduled) {
  ManualExecutor executor;
  EXPECT_FALSE(executor.runOne());
}

TEST(SerialQueueOnAReactor, KeepsTheOrderOfEachSubmittingThread) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kBlocks = 500;
  Reactor reactor;
  const auto queue = SerialQueue::create("test", reactor);
  // Touched only by the queue's blocks, without a lock.
  std::array<std::vector<std::size_t>, kThreads> seen;
  std::size_t total = 0;

  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (std::size_t i = 0; i < kBlocks; ++i) {
        queue->async([&seen, &total, thread, i] {
          seen[thread].push_back(i);
          ++total;
        });
      }
    });
  }
  while (total < kThreads * kBlocks) reactor.turn(/*wait=*/true);
  for (std::thread& thread : threads) thread.join();

  for (const auto& ofThread : seen) {
    ASSERT_EQ(ofThread.size(), kBlocks);
    for (std::size_t i = 0; i < kBlocks; ++i) EXPECT_EQ(ofThread[i], i);
  }
}

}  // namespace
}  // namespace keel
