// SPDX-License-Identifier: Apache-2.0
#include "tools/local_time.h"

#include <gtest/gtest.h>

#include "tools/local_zone.h"

namespace keel {
namespace {

TEST(LocalTime, HasTheOffsetOfTheZoneOnThatDay) {
  const LocalZone berlin("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(shownTimeOfDay(Date{1763630400.125}), "10:20:00.125 +0100");
  EXPECT_EQ(shownDateAndTime(Date{1752000000}), "2025-07-08 20:40:00.000 +0200");
}

TEST(LocalTime, HasAnOffsetWestOfGreenwich) {
  const LocalZone newfoundland("NST3:30");
  EXPECT_EQ(shownDateAndTime(Date{0}), "1969-12-31 20:30:00.000 -0330");
}

TEST(LocalTime, UtcHasAZeroOffset) {
  const LocalZone utc("UTC0");
  EXPECT_EQ(shownTimeOfDay(Date{1763630400.9999}), "09:20:00.999 +0000");
}

TEST(LocalTime, ShowsDatesBeforeTheEpoch) {
  const LocalZone utc("UTC0");
  EXPECT_EQ(shownDateAndTime(Date{-0.25}), "1969-12-31 23:59:59.750 +0000");
}

TEST(LocalTime, DatesOutsideTheCalendarAreShownInSeconds) {
  const LocalZone utc("UTC0");
  EXPECT_EQ(shownDateAndTime(Date{1e300}), Date{1e300}.description());
}

}  // namespace
}  // namespace keel
