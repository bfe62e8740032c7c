// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/attempt_line.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

namespace keel {
namespace {

// Until that many wait. It is left to the scheduler when they do.
void awaitWaiting(const AttemptLine& line, std::size_t count) {
  while (line.waitingCount() != count) std::this_thread::yield();
}

TEST(AttemptLine, AsManyAsAllowedGoOnAtOnceAndOneMoreWaits) {
  AttemptLine line(2);
  std::optional<AttemptLine::Turn> first(line.enter());
  const auto second = line.enter();
  std::atomic<bool> isServed = false;
  {
    const std::jthread third([&line, &isServed] {
      const auto turn = line.enter();
      isServed = true;
    });
    awaitWaiting(line, 1);
    EXPECT_FALSE(isServed);
    first.reset();
  }
  EXPECT_TRUE(isServed);
  EXPECT_EQ(line.waitingCount(), 0u);
}

TEST(AttemptLine, WhoCameFirstGoesFirst) {
  constexpr int kCount = 8;
  AttemptLine line(1);
  std::optional<AttemptLine::Turn> held(line.enter());
  std::vector<int> order;
  std::vector<std::jthread> waiting;
  for (int number = 0; number < kCount; ++number) {
    waiting.emplace_back([&line, &order, number] {
      const auto turn = line.enter();
      order.push_back(number);
    });
    awaitWaiting(line, static_cast<std::size_t>(number) + 1);
  }
  held.reset();
  waiting.clear();
  EXPECT_EQ(order, (std::vector{0, 1, 2, 3, 4, 5, 6, 7}));
}

}  // namespace
}  // namespace keel
