// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/holdings.h"

#include <gtest/gtest.h>

#include <array>

namespace keel::xpc {
namespace {

struct Stream {};

class HoldingsTest : public ::testing::Test {
 protected:
  Holdings<Stream> holdings;
  std::array<Stream, 4> streams;
  MemoryAccount alice, bob;
};

TEST_F(HoldingsTest, NobodyHoldsAnythingAtFirst) {
  EXPECT_EQ(holdings.heaviest(), nullptr);
  EXPECT_EQ(holdings.ownTotal(), 0u);
}

TEST_F(HoldingsTest, TheHeaviestBelongsToTheUserWhoHoldsMost) {
  holdings.note(&streams[0], &bob, 1000, 1000);
  holdings.note(&streams[1], &alice, 600, 600);
  holdings.note(&streams[2], &alice, 700, 0);
  EXPECT_EQ(holdings.heaviest(), &streams[2]);
  EXPECT_EQ(holdings.ownTotal(), 1600u);
}

TEST_F(HoldingsTest, AmongEqualsTheOldestIsTheHeaviest) {
  holdings.note(&streams[0], &bob, 8, 8);
  holdings.note(&streams[1], &alice, 32, 32);
  holdings.note(&streams[2], &alice, 32, 32);
  holdings.note(&streams[3], &bob, 1, 1);
  EXPECT_EQ(holdings.heaviest(), &streams[1]);
}

TEST_F(HoldingsTest, WhatIsReleasedCountsNoMore) {
  holdings.note(&streams[0], &alice, 600, 600);
  holdings.note(&streams[1], &alice, 500, 500);
  holdings.note(&streams[2], &bob, 700, 700);
  holdings.note(&streams[1], &alice, 50, 64);
  EXPECT_EQ(holdings.heaviest(), &streams[2]);
  EXPECT_EQ(holdings.ownTotal(), 1364u);
  holdings.note(&streams[2], &bob, 0, 0);
  EXPECT_EQ(holdings.heaviest(), &streams[0]);
  holdings.note(&streams[0], &alice, 0, 0);
  holdings.note(&streams[1], &alice, 0, 0);
  EXPECT_EQ(holdings.heaviest(), nullptr);
  EXPECT_EQ(holdings.ownTotal(), 0u);
}

TEST_F(HoldingsTest, AHolderOfNothingIsNotNoted) {
  holdings.note(&streams[0], &alice, 0, 0);
  EXPECT_EQ(holdings.heaviest(), nullptr);
  holdings.note(&streams[1], &alice, 65, 65);
  holdings.note(&streams[0], &alice, 0, 0);
  EXPECT_EQ(holdings.heaviest(), &streams[1]);
}

}  // namespace
}  // namespace keel::xpc
