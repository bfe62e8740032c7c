// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/line_limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace keel {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uid_t kAlice = 501;
constexpr uid_t kBob = 502;

class LineLimitsTest : public ::testing::Test {
 protected:
  // How many of `count` lines are admitted.
  int admitted(uid_t user, int count, LogLevel level = LogLevel::error,
               std::string_view category = "auth") {
    int admittedCount = 0;
    for (int i = 0; i < count; ++i) admittedCount += limits_.admits(user, level, category, now_);
    return admittedCount;
  }

  LineLimits::Clock::time_point now_{seconds(1000)};
  LineLimits limits_;
};

TEST_F(LineLimitsTest, ABurstIsAdmittedAndNotALineMore) {
  EXPECT_EQ(admitted(kAlice, kLineBurst), kLineBurst);
  EXPECT_THAT(limits_.takeLeftOut(), IsEmpty());
  EXPECT_EQ(admitted(kAlice, 7), 0);
}

TEST_F(LineLimitsTest, ThenAsManyASecondAsTheRate) {
  admitted(kAlice, kLineBurst);
  for (int second = 0; second < 3; ++second) {
    now_ += seconds(1);
    EXPECT_EQ(admitted(kAlice, 1000), kLinesPerSecond);
  }
}

TEST_F(LineLimitsTest, ABurstIsAdmittedAgainAfterAQuietTime) {
  admitted(kAlice, 1000);
  now_ += seconds(kLineBurst / kLinesPerSecond);
  EXPECT_EQ(admitted(kAlice, 1000), kLineBurst);
  now_ += seconds(3600);
  EXPECT_EQ(admitted(kAlice, 1000), kLineBurst);
}

TEST_F(LineLimitsTest, UsersDoNotCountForOneAnother) {
  admitted(kAlice, 1000);
  EXPECT_EQ(admitted(kBob, kLineBurst), kLineBurst);
}

TEST_F(LineLimitsTest, DebugLinesHaveALimitOfTheirOwn) {
  EXPECT_EQ(admitted(kAlice, 100000, LogLevel::debug), kLineBurst * kDebugLineFactor);
  EXPECT_EQ(admitted(kAlice, kLineBurst, LogLevel::standard), kLineBurst);
  now_ += seconds(1);
  EXPECT_EQ(admitted(kAlice, 100000, LogLevel::debug), kLinesPerSecond * kDebugLineFactor);
}

TEST_F(LineLimitsTest, AllOtherLevelsShareALimit) {
  EXPECT_EQ(admitted(kAlice, 50, LogLevel::standard), 50);
  EXPECT_EQ(admitted(kAlice, 40, LogLevel::error), 40);
  EXPECT_EQ(admitted(kAlice, 40, LogLevel::fault), kLineBurst - 90);
}

TEST_F(LineLimitsTest, WhatIsLeftOutIsCountedByUserOnce) {
  admitted(kAlice, kLineBurst + 3);
  admitted(kBob, kLineBurst + 1);
  const auto leftOut = limits_.takeLeftOut();
  ASSERT_THAT(leftOut, SizeIs(2));
  EXPECT_EQ(leftOut[0].user, kAlice);
  EXPECT_EQ(leftOut[0].count, 3U);
  EXPECT_EQ(leftOut[1].user, kBob);
  EXPECT_EQ(leftOut[1].count, 1U);
  EXPECT_THAT(limits_.takeLeftOut(), IsEmpty());
  admitted(kAlice, 2);
  EXPECT_THAT(limits_.takeLeftOut(), ElementsAre(Field(&LineLimits::LeftOut::count, 2U)));
}

TEST_F(LineLimitsTest, TheMostSevereLineLeftOutIsKnown) {
  admitted(kAlice, 1000);
  limits_.takeLeftOut();
  admitted(kAlice, 1, LogLevel::standard, "auth");
  admitted(kAlice, 1, LogLevel::error, "runtime");
  admitted(kAlice, 1, LogLevel::standard, "notification");
  const auto leftOut = limits_.takeLeftOut();
  ASSERT_THAT(leftOut, SizeIs(1));
  EXPECT_EQ(leftOut[0].level, LogLevel::error);
  EXPECT_EQ(leftOut[0].category, "runtime");
}

class ManyUsers : public LineLimitsTest {
 protected:
  static constexpr uid_t kFirst = 1000;
  ManyUsers() {
    for (std::size_t i = 0; i < kCountedUsers; ++i) admitted(kFirst + static_cast<uid_t>(i), 1);
  }
};

TEST_F(ManyUsers, ThoseBeyondTheTableShareABucket) {
  EXPECT_EQ(admitted(kAlice, kLineBurst / 2) + admitted(kBob, kLineBurst), kLineBurst);
  const auto leftOut = limits_.takeLeftOut();
  ASSERT_THAT(leftOut, SizeIs(1));
  EXPECT_EQ(leftOut[0].user, std::nullopt);
  EXPECT_EQ(leftOut[0].count, static_cast<std::uint64_t>(kLineBurst / 2));
}

TEST_F(ManyUsers, TheOldestGivesWayOnceItsBucketIsFull) {
  now_ += milliseconds(1000 / kLinesPerSecond);
  EXPECT_EQ(admitted(kAlice, kLineBurst), kLineBurst);
  EXPECT_EQ(admitted(kBob, kLineBurst), kLineBurst);
}

TEST_F(ManyUsers, AUserWithLinesToReportDoesNotGiveWay) {
  admitted(kFirst, 1000);
  for (std::size_t i = 1; i < kCountedUsers; ++i) admitted(kFirst + static_cast<uid_t>(i), 1);
  now_ += seconds(3600);
  EXPECT_EQ(admitted(kAlice, kLineBurst), kLineBurst);
  const auto leftOut = limits_.takeLeftOut();
  ASSERT_THAT(leftOut, SizeIs(1));
  EXPECT_EQ(leftOut[0].user, kFirst);
  EXPECT_EQ(leftOut[0].count, static_cast<std::uint64_t>(1000 - (kLineBurst - 1)));
}

}  // namespace
}  // namespace keel
