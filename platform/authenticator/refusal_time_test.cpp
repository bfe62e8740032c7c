// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/refusal_time.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

using namespace std::chrono_literals;

// Returns when a refusal is returned whose check took `spent`, both from the attempt's begin; the
// step is 500 ms.
std::chrono::nanoseconds toldAfter(std::chrono::nanoseconds spent) {
  const RefusalTime::Clock::time_point start(12345678ns);
  std::chrono::nanoseconds told{};
  const RefusalTime refusalTime(
      500ms, [&] { return start + spent; },
      [&](RefusalTime::Clock::time_point time) { told = time - start; });
  refusalTime.await(start);
  return told;
}

TEST(RefusalTime, IsOneStepForAnyFasterCheck) {
  EXPECT_EQ(toldAfter(0ns), 500ms);
  EXPECT_EQ(toldAfter(1200us), 500ms);
  EXPECT_EQ(toldAfter(500ms - 1ns), 500ms);
}

TEST(RefusalTime, IsAWholeMultipleForASlowerCheck) {
  EXPECT_EQ(toldAfter(500ms), 1000ms);
  EXPECT_EQ(toldAfter(1700ms), 2000ms);
}

TEST(RefusalTime, WaitsOnTheRealClock) {
  const RefusalTime refusalTime(1ms);
  const auto start = refusalTime.now();
  refusalTime.await(start);
  EXPECT_GE(refusalTime.now() - start, 1ms);
}

}  // namespace
}  // namespace keel
