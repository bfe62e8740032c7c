// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/waiting_output.h"

#include <gtest/gtest.h>

#include <array>

namespace keel::xpc {
namespace {

struct Stream {};
struct User {};

class WaitingOutputTest : public ::testing::Test {
 protected:
  WaitingOutput<Stream, User> output;
  std::array<Stream, 4> streams;
  User alice, bob;
};

TEST_F(WaitingOutputTest, NothingWaitsForAnybodyAtFirst) {
  EXPECT_EQ(output.heaviest(), nullptr);
  EXPECT_EQ(output.ownBytes(), 0u);
}

TEST_F(WaitingOutputTest, TheHeaviestIsOfTheUserForWhomMostWaits) {
  output.note(&streams[0], &bob, 1000, 1000);
  output.note(&streams[1], &alice, 600, 600);
  output.note(&streams[2], &alice, 700, 0);
  EXPECT_EQ(output.heaviest(), &streams[2]);
  EXPECT_EQ(output.ownBytes(), 1600u);
}

TEST_F(WaitingOutputTest, WhatWasReadIsForgotten) {
  output.note(&streams[0], &alice, 600, 600);
  output.note(&streams[1], &alice, 500, 500);
  output.note(&streams[2], &bob, 700, 700);
  output.note(&streams[1], &alice, 50, 64);
  EXPECT_EQ(output.heaviest(), &streams[2]);
  EXPECT_EQ(output.ownBytes(), 1364u);
  output.note(&streams[2], &bob, 0, 0);
  EXPECT_EQ(output.heaviest(), &streams[0]);
  output.note(&streams[0], &alice, 0, 0);
  output.note(&streams[1], &alice, 0, 0);
  EXPECT_EQ(output.heaviest(), nullptr);
  EXPECT_EQ(output.ownBytes(), 0u);
}

}  // namespace
}  // namespace keel::xpc
