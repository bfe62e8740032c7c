// SPDX-License-Identifier: Apache-2.0
#include "client/back_off.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

using namespace std::chrono_literals;

TEST(BackOff, DoublesUpToTheMaximum) {
  BackOff backOff(100ms, 350ms, [] { return 0.0; });
  EXPECT_EQ(backOff.next(), 100ms);
  EXPECT_EQ(backOff.next(), 200ms);
  EXPECT_EQ(backOff.next(), 350ms);
  EXPECT_EQ(backOff.next(), 350ms);
}

TEST(BackOff, ShortensByUpToAHalf) {
  double random = 0.999999;
  BackOff backOff(1000ms, 1000ms, [&] { return random; });
  EXPECT_EQ(backOff.next(), 500ms);
  random = 0.5;
  EXPECT_EQ(backOff.next(), 750ms);
}

TEST(BackOff, ResetRestoresTheMinimum) {
  BackOff backOff(100ms, 1000ms, [] { return 0.0; });
  backOff.next();
  backOff.next();
  backOff.reset();
  EXPECT_EQ(backOff.next(), 100ms);
}

TEST(BackOff, InvalidBoundsAreCorrectedToAPositivePause) {
  BackOff backOff(-5ms, -7ms, [] { return 1.0; });
  EXPECT_EQ(backOff.next(), 1ms);
  EXPECT_EQ(backOff.next(), 1ms);
  BackOff vast(1ms, BackOff::Duration::max(), [] { return 0.0; });
  for (int i = 0; i < 100; ++i) EXPECT_GE(vast.next(), 1ms);
  EXPECT_EQ(vast.next(), std::chrono::years(1));
}

}  // namespace
}  // namespace keel
