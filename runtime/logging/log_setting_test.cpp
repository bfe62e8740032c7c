// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/log_setting.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

TEST(LogSetting, EmptyTextMeansTheDefaultLevelEverywhere) {
  const auto [setting, invalidEntries] = LogSetting::parse("");
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::standard);
  EXPECT_EQ(invalidEntries, "");
}

TEST(LogSetting, APlainLevelAppliesToEveryCategory) {
  const auto [setting, invalidEntries] = LogSetting::parse("error");
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::error);
  EXPECT_EQ(setting.levelFor("notification"), LogLevel::error);
  EXPECT_EQ(invalidEntries, "");
}

TEST(LogSetting, ACategoryEntryAppliesToThatCategoryAlone) {
  const auto [setting, invalidEntries] = LogSetting::parse("notification=debug,auth=fault");
  EXPECT_EQ(setting.levelFor("notification"), LogLevel::debug);
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::fault);
  EXPECT_EQ(setting.levelFor("startup"), LogLevel::standard);
  EXPECT_EQ(invalidEntries, "");
}

TEST(LogSetting, ACategoryEntryOverridesThePlainLevelInEitherOrder) {
  EXPECT_EQ(LogSetting::parse("debug,auth=error").setting.levelFor("auth"), LogLevel::error);
  EXPECT_EQ(LogSetting::parse("auth=error,debug").setting.levelFor("auth"), LogLevel::error);
}

TEST(LogSetting, TheLastEntryForACategoryWins) {
  EXPECT_EQ(LogSetting::parse("auth=error,auth=debug").setting.levelFor("auth"), LogLevel::debug);
}

TEST(LogSetting, SpacesAndEmptyEntriesAreIgnored) {
  const auto [setting, invalidEntries] = LogSetting::parse(" debug , auth = error ,, \n");
  EXPECT_EQ(setting.levelFor("startup"), LogLevel::debug);
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::error);
  EXPECT_EQ(invalidEntries, "");
}

TEST(LogSetting, InvalidEntriesAreReturnedAndTheOthersApply) {
  const auto [setting, invalidEntries] =
      LogSetting::parse("loud,auth=debug,startup=,=error,runtime=Debug");
  EXPECT_EQ(invalidEntries, "loud,startup=,=error,runtime=Debug");
  EXPECT_EQ(setting.levelFor("auth"), LogLevel::debug);
  EXPECT_EQ(setting.levelFor("startup"), LogLevel::standard);
}

TEST(NameOf, ReturnsTheNameUsedInSettings) {
  EXPECT_EQ(nameOf(LogLevel::debug), "debug");
  EXPECT_EQ(nameOf(LogLevel::standard), "default");
  EXPECT_EQ(nameOf(LogLevel::error), "error");
  EXPECT_EQ(nameOf(LogLevel::fault), "fault");
}

}  // namespace
}  // namespace keel
