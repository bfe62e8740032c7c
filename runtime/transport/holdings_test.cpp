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

TEST_F(HoldingsTest, HasNoHoldersAtFirst) {
  EXPECT_EQ(holdings.largestHolder(), nullptr);
  EXPECT_EQ(holdings.exclusiveTotal(), 0u);
}

TEST_F(HoldingsTest, TheLargestHolderBelongsToTheUserWhoHoldsMost) {
  holdings.update(&streams[0], &bob, 1000, 1000);
  holdings.update(&streams[1], &alice, 600, 600);
  holdings.update(&streams[2], &alice, 700, 0);
  EXPECT_EQ(holdings.largestHolder(), &streams[2]);
  EXPECT_EQ(holdings.exclusiveTotal(), 1600u);
}

TEST_F(HoldingsTest, AmongEqualsTheOldestIsTheLargest) {
  holdings.update(&streams[0], &bob, 8, 8);
  holdings.update(&streams[1], &alice, 32, 32);
  holdings.update(&streams[2], &alice, 32, 32);
  holdings.update(&streams[3], &bob, 1, 1);
  EXPECT_EQ(holdings.largestHolder(), &streams[1]);
}

TEST_F(HoldingsTest, ReleasedAmountsNoLongerCount) {
  holdings.update(&streams[0], &alice, 600, 600);
  holdings.update(&streams[1], &alice, 500, 500);
  holdings.update(&streams[2], &bob, 700, 700);
  holdings.update(&streams[1], &alice, 50, 64);
  EXPECT_EQ(holdings.largestHolder(), &streams[2]);
  EXPECT_EQ(holdings.exclusiveTotal(), 1364u);
  holdings.update(&streams[2], &bob, 0, 0);
  EXPECT_EQ(holdings.largestHolder(), &streams[0]);
  holdings.update(&streams[0], &alice, 0, 0);
  holdings.update(&streams[1], &alice, 0, 0);
  EXPECT_EQ(holdings.largestHolder(), nullptr);
  EXPECT_EQ(holdings.exclusiveTotal(), 0u);
}

TEST_F(HoldingsTest, AHolderOfNothingIsNotTracked) {
  holdings.update(&streams[0], &alice, 0, 0);
  EXPECT_EQ(holdings.largestHolder(), nullptr);
  holdings.update(&streams[1], &alice, 65, 65);
  holdings.update(&streams[0], &alice, 0, 0);
  EXPECT_EQ(holdings.largestHolder(), &streams[1]);
}

TEST_F(HoldingsTest, TheLargestHoldersAreThoseOfOneUser) {
  holdings.update(&streams[0], &alice, 10, 0);
  holdings.update(&streams[1], &alice, 300, 0);
  holdings.update(&streams[2], &alice, 290, 0);
  holdings.update(&streams[3], &bob, 500, 0);
  EXPECT_EQ(holdings.largestHolders(), std::vector<Stream*>{&streams[1]});
  EXPECT_EQ(holdings.largestHolders(&bob), std::vector<Stream*>{&streams[3]});
  holdings.update(&streams[1], &alice, 0, 0);
  EXPECT_EQ(holdings.largestHolders(&alice), std::vector<Stream*>{&streams[2]});
  MemoryAccount carol;
  EXPECT_TRUE(holdings.largestHolders(&carol).empty());
}

TEST_F(HoldingsTest, ManySmallHoldersAreReturnedABoundedNumberAtOnce) {
  std::array<Stream, 10'000> many;
  for (Stream& each : many) holdings.update(&each, &alice, 100, 0);
  EXPECT_EQ(holdings.largestHolders().size(), Holdings<Stream>::kHoldersAtOnce);
}

}  // namespace
}  // namespace keel::xpc
