// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/log_setting.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

TEST(LogSetting, EmptyTextMeansTheDefaultLevelEverywhere) {
  const auto [setting, notUnderstood] = LogSetting::parse("");
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::standard);
  EXPECT_EQ(notUnderstood, "");
}

TEST(LogSetting, PlainLevelHoldsForEveryCategory) {
  const auto [setting, notUnderstood] = LogSetting::parse("error");
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::error);
  EXPECT_EQ(setting.levelFor("notification"), LogLevel::error);
  EXPECT_EQ(notUnderstood, "");
}

TEST(LogSetting, CategoryEntryHoldsForThatCategoryAlone) {
  const auto [setting, notUnderstood] = LogSetting::parse("notification=debug,auth=fault");
  EXPECT_EQ(setting.levelFor("notification"), LogLevel::debug);
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::fault);
  EXPECT_EQ(setting.levelFor("startup"), LogLevel::standard);
  EXPECT_EQ(notUnderstood, "");
}

TEST(LogSetting, CategoryEntryOutweighsThePlainLevelInEitherOrder) {
  EXPECT_EQ(LogSetting::parse("debug,auth=error").setting.levelFor("auth"), LogLevel::error);
  EXPECT_EQ(LogSetting::parse("auth=error,debug").setting.levelFor("auth"), LogLevel::error);
}

TEST(LogSetting, LaterEntryForTheSameCategoryWins) {
  EXPECT_EQ(LogSetting::parse("auth=error,auth=debug").setting.levelFor("auth"), LogLevel::debug);
}

TEST(LogSetting, SpacesAndEmptyEntriesAreNoFault) {
  const auto [setting, notUnderstood] = LogSetting::parse(" debug , auth = error ,, \n");
  EXPECT_EQ(setting.levelFor("startup"), LogLevel::debug);
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::error);
  EXPECT_EQ(notUnderstood, "");
}

TEST(LogSetting, EntriesNotUnderstoodAreReturnedAndTheOthersHold) {
  const auto [setting, notUnderstood] =
      LogSetting::parse("loud,auth=debug,startup=,=error,runtime=Debug");
  EXPECT_EQ(notUnderstood, "loud,startup=,=error,runtime=Debug");
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::debug);
  EXPECT_EQ(setting.levelFor("startup"), LogLevel::standard);
}

TEST(LogLevel, NamesAreThoseOfTheSetting) {
  EXPECT_EQ(nameOf(LogLevel::debug), "debug");
  EXPECT_EQ(nameOf(LogLevel::standard), "default");
  EXPECT_EQ(nameOf(LogLevel::error), "error");
  EXPECT_EQ(nameOf(LogLevel::fault), "fault");
}

}  // namespace
}  // namespace keel
