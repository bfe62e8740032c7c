// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/worker_pool.h"

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
#include <system_error>
#include <thread>
#include <vector>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/crash_stack.h"

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

TEST(WorkerPool, RunsAsManyQueuesAtOnceAsItsLimitAndNoMore) {
  constexpr std::ptrdiff_t kLimit = 3;
  std::barrier together(kLimit);  // each block waits until kLimit are running
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

TEST(WorkerPool, ABlockedBlockHoldsUpItsOwnQueueAlone) {
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

TEST(WorkerPool, OneLaneCannotOccupyAllThreads) {
  WorkerPool pool(3, /*threadLimitPerLane=*/2);
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::latch stuck(2);
  std::latch ended(5);
  // Five that block, of which two may begin.
  for (int i = 0; i < 5; ++i) {
    SerialQueue::create("stuck", pool.laneOf(501))->async([&stuck, &ended, released, i] {
      if (i < 2) stuck.count_down();
      released.wait();
      ended.count_down();
    });
  }
  stuck.wait();
  for (int i = 0; i < 10; ++i) {
    std::promise<void> ran;
    SerialQueue::create("free", pool.laneOf(502))->async([&ran] { ran.set_value(); });
    ran.get_future().wait();
  }
  EXPECT_FALSE(ended.try_wait());
  release.set_value();
  ended.wait();
}

TEST(WorkerPool, LanesAreServedRoundRobin) {
  WorkerPool pool(1);
  std::promise<void> release;
  std::promise<void> begun;
  std::latch ended(6);
  std::string order;  // written by the one thread
  SerialQueue::create("first", pool)->async([&begun, &release] {
    begun.set_value();
    release.get_future().wait();
  });
  begun.get_future().wait();
  // All wait when the thread becomes free.
  for (const char* lane = "aaaabc"; *lane != '\0'; ++lane) {
    SerialQueue::create("one", pool.laneOf(static_cast<std::uint64_t>(*lane)))
        ->async([&order, &ended, name = *lane] {
          order += name;
          ended.count_down();
        });
  }
  release.set_value();
  ended.wait();
  EXPECT_EQ(order, "abcaaa");
}

TEST(WorkerPool, LaneOfReturnsTheSameLaneForTheSameOwner) {
  WorkerPool pool(1);
  EXPECT_EQ(&pool.laneOf(501), &pool.laneOf(501));
  EXPECT_NE(&pool.laneOf(501), &pool.laneOf(502));
}

TEST(WorkerPool, DestructorDropsQueuesThatWaitInLanes) {
  std::weak_ptr<SerialQueue> released;
  std::promise<void> release;
  std::promise<void> begun;
  {
    WorkerPool pool(1);
    const auto blocking = SerialQueue::create("blocking", pool);
    blocking->async([&begun, &release, blocking] {
      begun.set_value();
      release.get_future().wait();
    });
    begun.get_future().wait();
    const auto waiting = SerialQueue::create("waiting", pool.laneOf(501));
    released = waiting;
    waiting->async([waiting] {});
    release.set_value();
  }
  EXPECT_TRUE(released.expired());
}

TEST(WorkerPool, NamesItsThreadsAndGivesEachAStackForACrash) {
  WorkerPool pool(1);
  std::promise<std::string> name;
  bool hasCrashStack = false;
  SerialQueue::create("name", pool)->async([&] {
    std::array<char, 16> text{};
    pthread_getname_np(pthread_self(), text.data(), text.size());
    hasCrashStack = CrashStack::isInUse();
    name.set_value(text.data());
  });
  EXPECT_EQ(name.get_future().get(), "keel-worker");
  EXPECT_TRUE(hasCrashStack);
}

TEST(WorkerPool, DestructorDropsQueuesThatHaveNotBegun) {
  std::weak_ptr<SerialQueue> released;
  std::function<void(const std::shared_ptr<SerialQueue>&)> feedItself;
  {
    WorkerPool pool(2);
    const auto queue = SerialQueue::create("endless", pool);
    released = queue;
    std::latch begun(1);
    queue->async([&begun] { begun.count_down(); });
    // There is always another batch to run.
    feedItself = [&feedItself](const std::shared_ptr<SerialQueue>& fed) {
      fed->async([&feedItself, fed] { feedItself(fed); });
    };
    feedItself(queue);
    begun.wait();
  }
  EXPECT_TRUE(released.expired());
}

// While it lives the system has no room for the stack of another thread.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    EXPECT_EQ(::pthread_getattr_default_np(&before_), 0);
    pthread_attr_t huge;
    EXPECT_EQ(::pthread_attr_init(&huge), 0);
    EXPECT_EQ(::pthread_attr_setstacksize(&huge, std::size_t{1} << 47), 0);
    EXPECT_EQ(::pthread_setattr_default_np(&huge), 0);
    ::pthread_attr_destroy(&huge);
  }
  ~NoMoreThreads() {
    EXPECT_EQ(::pthread_setattr_default_np(&before_), 0);
    ::pthread_attr_destroy(&before_);
  }
  NoMoreThreads(const NoMoreThreads&) = delete;
  NoMoreThreads& operator=(const NoMoreThreads&) = delete;

 private:
  pthread_attr_t before_;
};

TEST(WorkerPool, StartReportsThatThereIsNoThread) {
  WorkerPool pool(2);
  {
    const NoMoreThreads full;
    EXPECT_EQ(pool.start(), std::errc::resource_unavailable_try_again);
  }
  EXPECT_EQ(pool.start(), std::error_code());
}

TEST(WorkerPool, WorksWithTheThreadsItHas) {
  WorkerPool pool(2);
  ASSERT_EQ(pool.start(), std::error_code());
  const NoMoreThreads full;
  std::latch ended(3);
  for (int i = 0; i < 3; ++i)
    SerialQueue::create("one", pool)->async([&ended] { ended.count_down(); });
  ended.wait();
}

TEST(WorkerPool, WorkWaitsForTheFirstThread) {
  WorkerPool pool(1);
  std::latch ended(2);
  {
    const NoMoreThreads full;
    SerialQueue::create("early", pool)->async([&ended] { ended.count_down(); });
  }
  SerialQueue::create("late", pool)->async([&ended] { ended.count_down(); });
  ended.wait();
}

TEST(WorkerPool, CanBeDestroyedUnused) {
  WorkerPool pool(1);
}

TEST(WorkerPool, IdleThreadsEndExceptTheLastOne) {
  constexpr std::ptrdiff_t kThreads = 4;
  WorkerPool pool(kThreads, kThreads, std::chrono::milliseconds(0));
  for (int round = 0; round < 3; ++round) {
    std::barrier together(kThreads);
    std::latch done(kThreads);
    for (std::ptrdiff_t i = 0; i < kThreads; ++i) {
      SerialQueue::create("busy", pool)->async([&] {
        together.arrive_and_wait();
        done.count_down();
      });
    }
    done.wait();
    while (pool.threadCount() > 1) std::this_thread::yield();
    EXPECT_EQ(pool.threadCount(), 1u);
  }
}

}  // namespace
}  // namespace keel
