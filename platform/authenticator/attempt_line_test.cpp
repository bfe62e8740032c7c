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

TEST(AttemptLine, AsManyAsAllowedGoOnAtOnce) {
  AttemptLine line(2, 0);
  const auto first = line.enter();
  EXPECT_TRUE(first);
  {
    const auto second = line.enter();
    EXPECT_TRUE(second);
    EXPECT_FALSE(line.enter());
  }
  EXPECT_TRUE(line.enter());
}

TEST(AttemptLine, AsManyAsAllowedWaitAndOneMoreIsRefused) {
  AttemptLine line(1, 2);
  std::optional<AttemptLine::Turn> first(line.enter());
  std::atomic<int> served = 0;
  std::vector<std::jthread> waiting;
  for (std::size_t count = 1; count <= 2; ++count) {
    waiting.emplace_back([&line, &served] {
      if (line.enter()) ++served;
    });
    awaitWaiting(line, count);
  }
  EXPECT_FALSE(line.enter());
  EXPECT_EQ(served, 0);
  first.reset();
  waiting.clear();
  EXPECT_EQ(served, 2);
  EXPECT_TRUE(line.enter());
}

TEST(AttemptLine, WhoCameFirstGoesFirst) {
  constexpr int kCount = 8;
  AttemptLine line(1, kCount);
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
