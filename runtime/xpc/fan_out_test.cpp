// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/fan_out.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>

namespace keel::xpc {
namespace {

struct CountedCall final : FanOut::Call {
  int forgotten = 0;
  void forget() override { ++forgotten; }
};

TEST(FanOut, KeepsACallToItsEnd) {
  CountedCall call;
  {
    FanOut fanOut(2);
    EXPECT_EQ(FanOut::current(), &fanOut);
    EXPECT_FALSE(fanOut.keeps(call));
    EXPECT_TRUE(fanOut.keep(call));
    EXPECT_TRUE(fanOut.keep(call));
    EXPECT_TRUE(fanOut.keeps(call));
    EXPECT_EQ(call.forgotten, 0);
  }
  EXPECT_EQ(call.forgotten, 1);
  EXPECT_EQ(FanOut::current(), nullptr);
}

TEST(FanOut, ForOneReceiverThereIsNoneAndTheOuterOneComesBack) {
  FanOut outer(2);
  {
    FanOut one(1);
    EXPECT_EQ(FanOut::current(), nullptr);
    FanOut inner(2);
    EXPECT_EQ(FanOut::current(), &inner);
  }
  EXPECT_EQ(FanOut::current(), &outer);
}

TEST(FanOut, KeepsAFewCallsOnly) {
  std::array<CountedCall, 5> calls;
  {
    FanOut fanOut(2);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(fanOut.keep(calls[static_cast<std::size_t>(i)]));
    EXPECT_FALSE(fanOut.keep(calls[4]));
    EXPECT_FALSE(fanOut.keeps(calls[4]));
  }
  EXPECT_EQ(calls[3].forgotten, 1);
  EXPECT_EQ(calls[4].forgotten, 0);
}

}  // namespace
}  // namespace keel::xpc
