// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/admission_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

namespace keel {
namespace {

// Waits until `count` threads are queued; when that happens is up to the scheduler.
void awaitWaiting(const AdmissionQueue& queue, std::size_t count) {
  while (queue.waitingCount() != count) std::this_thread::yield();
}

TEST(AdmissionQueue, AdmitsUpToTheLimitAndQueuesTheNext) {
  AdmissionQueue queue(2);
  std::optional<AdmissionQueue::Admission> first(queue.admit());
  const auto second = queue.admit();
  std::atomic<bool> isServed = false;
  {
    const std::jthread third([&queue, &isServed] {
      const auto admission = queue.admit();
      isServed = true;
    });
    awaitWaiting(queue, 1);
    EXPECT_FALSE(isServed);
    first.reset();
  }
  EXPECT_TRUE(isServed);
  EXPECT_EQ(queue.waitingCount(), 0u);
}

TEST(AdmissionQueue, AdmitsInOrderOfArrival) {
  constexpr int kCount = 8;
  AdmissionQueue queue(1);
  std::optional<AdmissionQueue::Admission> held(queue.admit());
  std::vector<int> order;
  std::vector<std::jthread> waiting;
  for (int number = 0; number < kCount; ++number) {
    waiting.emplace_back([&queue, &order, number] {
      const auto admission = queue.admit();
      order.push_back(number);
    });
    awaitWaiting(queue, static_cast<std::size_t>(number) + 1);
  }
  held.reset();
  waiting.clear();
  EXPECT_EQ(order, (std::vector{0, 1, 2, 3, 4, 5, 6, 7}));
}

}  // namespace
}  // namespace keel
