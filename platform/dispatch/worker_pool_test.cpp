// SPDX-License-Identifier: Apache-2.0
#include "platform/dispatch/worker_pool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cstddef>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch/serial_queue.h"

namespace keel {
namespace {

TEST(WorkerPool, NeverRunsTwoBlocksOfAQueueAtOnce) {
  constexpr std::size_t kQueues = 8;
  constexpr int kBlocks = 400;
  struct Lane {
    std::shared_ptr<SerialQueue> queue;
    std::atomic<bool> busy{false};
    int expected = 0;  // of the queue's blocks alone, without a lock
    bool inOrder = true;
  };
  std::array<Lane, kQueues> lanes;
  std::latch done(kQueues);
  WorkerPool pool(4);
  for (Lane& lane : lanes) lane.queue = SerialQueue::create("lane", pool);
  for (int i = 0; i < kBlocks; ++i) {
    for (Lane& lane : lanes) {
      lane.queue->async([&lane, i] {
        lane.inOrder = lane.inOrder && !lane.busy.exchange(true) && lane.expected++ == i;
        lane.busy.store(false);
      });
    }
  }
  for (Lane& lane : lanes) lane.queue->async([&done] { done.count_down(); });
  done.wait();
  for (const Lane& lane : lanes) {
    EXPECT_TRUE(lane.inOrder);
    EXPECT_EQ(lane.expected, kBlocks);
  }
}

TEST(WorkerPool, RunsAsManyTurnsAtOnceAsItsLimitAndNotMore) {
  constexpr std::ptrdiff_t kLimit = 3;
  std::barrier together(kLimit);  // each turn waits until kLimit are running
  std::atomic<std::ptrdiff_t> running{0};
  std::atomic<std::ptrdiff_t> most{0};
  std::latch done(3 * kLimit);
  WorkerPool pool(kLimit);
  for (int i = 0; i < 3 * kLimit; ++i) {
    SerialQueue::create("one", pool)->async([&] {
      const std::ptrdiff_t now = ++running;
      for (std::ptrdiff_t seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
      }
      together.arrive_and_wait();
      --running;
      done.count_down();
    });
  }
  done.wait();
  EXPECT_EQ(most, kLimit);
}

TEST(WorkerPool, ABlockedTurnHoldsUpItsOwnQueueAlone) {
  WorkerPool pool(2);
  const auto stuck = SerialQueue::create("stuck", pool);
  const auto free = SerialQueue::create("free", pool);
  std::promise<void> release;
  std::promise<void> ended;
  stuck->async([&release] { release.get_future().wait(); });
  stuck->async([&ended] { ended.set_value(); });
  // Each begins only after the one before has ended, all while the first queue is stuck.
  for (int i = 0; i < 10; ++i) {
    std::promise<void> ran;
    free->async([&ran] { ran.set_value(); });
    ran.get_future().wait();
  }
  release.set_value();
  ended.get_future().wait();
}

TEST(WorkerPool, NamesItsThreads) {
  WorkerPool pool(1);
  std::promise<std::string> name;
  SerialQueue::create("name", pool)->async([&name] {
    std::array<char, 16> text{};
    pthread_getname_np(pthread_self(), text.data(), text.size());
    name.set_value(text.data());
  });
  EXPECT_EQ(name.get_future().get(), "keel-worker");
}

TEST(WorkerPool, DropsTurnsThatHaveNotBegunWhenItEnds) {
  std::weak_ptr<SerialQueue> released;
  std::function<void(const std::shared_ptr<SerialQueue>&)> feedItself;
  {
    WorkerPool pool(2);
    const auto queue = SerialQueue::create("endless", pool);
    released = queue;
    std::latch begun(1);
    queue->async([&begun] { begun.count_down(); });
    // There is always one more turn to run.
    feedItself = [&feedItself](const std::shared_ptr<SerialQueue>& fed) {
      fed->async([&feedItself, fed] { feedItself(fed); });
    };
    feedItself(queue);
    begun.wait();
  }
  EXPECT_TRUE(released.expired());
}

TEST(WorkerPool, EndsWithoutEverHavingWorked) {
  WorkerPool pool(1);
}

}  // namespace
}  // namespace keel
