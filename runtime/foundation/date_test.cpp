// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/date.h"

#include <gtest/gtest.h>

#include <ctime>
#include <limits>

namespace keel {
namespace {

TEST(DateDescription, IsIso8601InUtcWithMicroseconds) {
  EXPECT_EQ(Date{0}.description(), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(Date{1795167000.123456}.description(), "2026-11-20T09:30:00.123456Z");
  EXPECT_EQ(Date{951782400}.description(), "2000-02-29T00:00:00.000000Z");
}

TEST(DateDescription, CountsDownBeforeTheEpoch) {
  EXPECT_EQ(Date{-0.25}.description(), "1969-12-31T23:59:59.750000Z");
}

TEST(DateDescription, RoundsUpIntoTheNextSecond) {
  EXPECT_EQ(Date{59.9999999}.description(), "1970-01-01T00:01:00.000000Z");
}

TEST(DateDescription, IsACalendarDateFromYear0To9999) {
  EXPECT_EQ(Date{-62167219200}.description(), "0000-01-01T00:00:00.000000Z");
  EXPECT_EQ(Date{253402300799}.description(), "9999-12-31T23:59:59.000000Z");
}

TEST(DateDescription, IsThePlainSecondsOutsideThoseYears) {
  EXPECT_EQ(Date{-62167219201}.description(), "-62167219201");
  EXPECT_EQ(Date{253402300800}.description(), "253402300800");
  EXPECT_EQ(Date{1e300}.description(), "1e+300");
}

TEST(DateWholeSeconds, ExistUpTo2To53) {
  EXPECT_EQ(Date{1732}.wholeSeconds(), 1732);
  EXPECT_EQ(Date{0x1p53}.wholeSeconds(), std::int64_t{1} << 53);
  EXPECT_EQ(Date{-0x1p53}.wholeSeconds(), -(std::int64_t{1} << 53));
  EXPECT_EQ(Date{0x1p53 + 2}.wholeSeconds(), std::nullopt);
  EXPECT_EQ(Date{-0x1p53 - 2}.wholeSeconds(), std::nullopt);
}

TEST(DateWholeSeconds, DoNotExistForFractionsAndInfinity) {
  EXPECT_EQ(Date{1732.5}.wholeSeconds(), std::nullopt);
  EXPECT_EQ(Date{std::numeric_limits<double>::infinity()}.wholeSeconds(), std::nullopt);
}

TEST(DateNow, LiesBetweenTwoReadingsOfTheSystemClock) {
  const auto before = static_cast<double>(std::time(nullptr));
  const Date now = Date::now();
  const auto after = static_cast<double>(std::time(nullptr));
  // time(2) may lag by a tick of the clock.
  EXPECT_GE(now.secondsSinceEpoch, before);
  EXPECT_LE(now.secondsSinceEpoch, after + 2);
}

TEST(Date, IsOrderedByTime) {
  EXPECT_LT(Date{1}, Date{2});
  EXPECT_EQ(Date{1}, Date{1});
}

}  // namespace
}  // namespace keel
