// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/journal_output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

namespace keel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::StartsWith;

TEST(JournalFields, HoldTextLevelSubsystemAndCategory) {
  EXPECT_THAT(journalFields({LogLevel::error, "auth", "no such user"}),
              ElementsAre("MESSAGE=no such user", "PRIORITY=3", "SUBSYSTEM=com.vantor.keeld",
                          "CATEGORY=auth"));
}

TEST(JournalFields, EachLevelHasItsPriority) {
  const auto priority = [](LogLevel level) { return journalFields({level, "auth", "text"})[1]; };
  EXPECT_EQ(priority(LogLevel::debug), "PRIORITY=7");
  EXPECT_EQ(priority(LogLevel::standard), "PRIORITY=5");
  EXPECT_EQ(priority(LogLevel::error), "PRIORITY=3");
  EXPECT_EQ(priority(LogLevel::fault), "PRIORITY=2");
}

TEST(JournalFields, NameTheUserWhoCausedTheMessage) {
  LogMessage message{LogLevel::error, "auth", "text"};
  message.user = 501;
  EXPECT_THAT(journalFields(message), Contains("KEEL_UID=501"));
  message.user = std::nullopt;
  EXPECT_THAT(journalFields(message), Not(Contains(StartsWith("KEEL_UID"))));
}

TEST(JournalFields, HostileTextStaysOnItsLine) {
  const std::string text("a\nPRIORITY=0\0\x1b\xff\u202e \u00e9 %", 23);
  EXPECT_EQ(journalFields({LogLevel::debug, "auth", text})[0],
            "MESSAGE=a\\nPRIORITY=0\\x00\\x1b\\xff\\u202e \u00e9 %");
}

TEST(JournalFields, AnEscapedTextIsNotTruncated) {
  const std::string text(kLogMessageBytes, '\x1b');
  EXPECT_EQ(journalFields({LogLevel::debug, "auth", text})[0].size(),
            sizeof("MESSAGE=") - 1 + 4 * text.size());
}

std::vector<std::string> sentFields;
int sendResult = 0;

int recordingSend(const iovec* fields, int count) {
  sentFields.clear();
  for (int i = 0; i < count; ++i)
    sentFields.emplace_back(static_cast<const char*>(fields[i].iov_base), fields[i].iov_len);
  return sendResult;
}

TEST(JournalOutput, SendsTheFields) {
  sendResult = 0;
  JournalOutput output(&recordingSend);
  EXPECT_TRUE(output.write({LogLevel::standard, "runtime", "text"}));
  EXPECT_THAT(sentFields, ElementsAre("MESSAGE=text", "PRIORITY=5", "SUBSYSTEM=com.vantor.keeld",
                                      "CATEGORY=runtime"));
}

TEST(JournalOutput, AFailedSendLosesTheMessage) {
  sendResult = -ECONNREFUSED;
  JournalOutput output(&recordingSend);
  EXPECT_FALSE(output.write({LogLevel::standard, "runtime", "text"}));
}

}  // namespace
}  // namespace keel
