// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/logger_table.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

#include "runtime/dispatch/current_user.h"
#include "runtime/logging/recording_output.h"

namespace keel {
struct Explosive {};
struct CountedFormatting {
  int& count;
};
}  // namespace keel

template <>
struct fmt::formatter<keel::Explosive> : fmt::formatter<std::string_view> {
  auto format(keel::Explosive, format_context& context) const -> decltype(context.out()) {
    throw std::bad_alloc();
  }
};
template <>
struct fmt::formatter<keel::CountedFormatting> : fmt::formatter<std::string_view> {
  auto format(const keel::CountedFormatting& counted, format_context& context) const {
    ++counted.count;
    return fmt::formatter<std::string_view>::format("counted", context);
  }
};

namespace keel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class LoggerTableTest : public ::testing::Test {
 protected:
  std::vector<std::string> writtenTexts() {
    EXPECT_TRUE(table_.flush(kHangTimeout));
    return recorder_.texts();
  }

  Recorder recorder_;
  LoggerTable table_;
};

TEST_F(LoggerTableTest, ReturnsTheSameLoggerForACategory) {
  Logger& auth = table_.loggerForCategory("auth");
  EXPECT_EQ(&auth, &table_.loggerForCategory(std::string("auth")));
  EXPECT_NE(&auth, &table_.loggerForCategory("startup"));
  EXPECT_EQ(auth.category(), "auth");
}

TEST_F(LoggerTableTest, NothingIsEnabledBeforeStart) {
  EXPECT_FALSE(table_.loggerForCategory("auth").enabled(LogLevel::fault));
  EXPECT_TRUE(table_.flush(std::chrono::milliseconds(0)));
}

TEST_F(LoggerTableTest, StartSetsLevelsOfLoggersMadeBeforeAndAfter) {
  Logger& before = table_.loggerForCategory("auth");
  EXPECT_EQ(table_.start(recorder_.output(), "auth=error,startup=debug"), "");
  Logger& after = table_.loggerForCategory("startup");
  Logger& other = table_.loggerForCategory("runtime");
  EXPECT_FALSE(before.enabled(LogLevel::standard));
  EXPECT_TRUE(before.enabled(LogLevel::error));
  EXPECT_TRUE(after.enabled(LogLevel::debug));
  EXPECT_FALSE(other.enabled(LogLevel::debug));
  EXPECT_TRUE(other.enabled(LogLevel::standard));
}

TEST_F(LoggerTableTest, StartReturnsInvalidEntries) {
  EXPECT_EQ(table_.start(recorder_.output(), "auth=loud,error"), "auth=loud");
  EXPECT_FALSE(table_.loggerForCategory("auth").enabled(LogLevel::standard));
}

TEST_F(LoggerTableTest, ASecondStartAborts) {
  table_.start(recorder_.output(), "");
  EXPECT_DEATH(table_.start(recorder_.output(), ""), "");
}

TEST_F(LoggerTableTest, DisabledMessagesAreNotEvenFormatted) {
  table_.start(recorder_.output(), "error");
  Logger& logger = table_.loggerForCategory("auth");
  int formatCount = 0;
  logger.debug("debug {}", CountedFormatting{formatCount});
  logger.standard("standard {}", CountedFormatting{formatCount});
  logger.error("error {}", CountedFormatting{formatCount});
  logger.fault("fault {} {}", 7, String());
  EXPECT_THAT(writtenTexts(), ElementsAre("error counted", "fault 7 (null)"));
  EXPECT_EQ(formatCount, 1);
}

TEST_F(LoggerTableTest, LinesBeyondTheLimitOfTheirUserAreNotFormatted) {
  constexpr int kLines = 100000;
  table_.start(recorder_.output(), "");
  Logger& logger = table_.loggerForCategory("auth");
  int formedCount = 0;
  {
    const WorkingFor alice(501);
    for (int i = 0; i < kLines; ++i) logger.error("{}", CountedFormatting{formedCount});
  }
  EXPECT_GE(formedCount, kLineBurst);
  EXPECT_LT(formedCount, kLines);
  logger.error("mine");
  const auto texts = writtenTexts();
  EXPECT_THAT(texts, Contains("mine"));
  EXPECT_THAT(texts, Contains(HasSubstr("lines caused by uid 501 were left out")));
  EXPECT_EQ(recorder_.lines().front().user, 501);
}

TEST_F(LoggerTableTest, ACaptureReceivesAllLinesOfAUser) {
  table_.start(recorder_.output(), "");
  Logger& logger = table_.loggerForCategory("auth");
  int count = 0;
  std::optional<uid_t> user;
  const LoggerTable::Receiver receiver = [&](const LogMessage& message) {
    ++count;
    user = message.user;
  };
  table_.beginCapture(receiver);
  const WorkingFor alice(501);
  for (int i = 0; i < 2 * kLineBurst; ++i) logger.error("x");
  table_.endCapture(receiver);
  EXPECT_EQ(count, 2 * kLineBurst);
  EXPECT_EQ(user, 501);
}

TEST_F(LoggerTableTest, NullTextsAndErrorsAreFormattedAsNull) {
  table_.start(recorder_.output(), "");
  Logger& logger = table_.loggerForCategory("auth");
  logger.error("[{}] [{}] [{:>5}]", String(), String(""), String("bob"));
  logger.error("[{}] [{}]", Error(), Error("Domain", 7));
  EXPECT_THAT(writtenTexts(), ElementsAre("[(null)] [] [  bob]",
                                          "[(null)] [" + Error("Domain", 7).description() + "]"));
}

TEST_F(LoggerTableTest, AMessageOfTheLimitIsComplete) {
  table_.start(recorder_.output(), "");
  table_.loggerForCategory("auth").error("{}", std::string(kLogMessageBytes, 'x'));
  EXPECT_THAT(writtenTexts(), ElementsAre(std::string(kLogMessageBytes, 'x')));
  EXPECT_EQ(recorder_.lines()[0].fullBytes, 0U);
}

TEST_F(LoggerTableTest, AMessageAboveTheLimitIsTruncatedWithANoteOfItsSize) {
  table_.start(recorder_.output(), "");
  table_.loggerForCategory("auth").error("{}", std::string(kLogMessageBytes + 1, 'x'));
  EXPECT_THAT(writtenTexts(),
              ElementsAre(std::string(kLogMessageBytes, 'x') + "... (16385 bytes)"));
  EXPECT_EQ(recorder_.lines()[0].fullBytes, 16385U);
}

TEST_F(LoggerTableTest, TruncationDoesNotSplitACharacter) {
  table_.start(recorder_.output(), "");
  table_.loggerForCategory("auth").error("{}\u20ac", std::string(kLogMessageBytes - 2, 'x'));
  EXPECT_THAT(writtenTexts(),
              ElementsAre(std::string(kLogMessageBytes - 2, 'x') + "... (16385 bytes)"));
}

TEST_F(LoggerTableTest, FormattingThatThrowsLosesOnlyTheMessage) {
  table_.start(recorder_.output(), "");
  Logger& logger = table_.loggerForCategory("auth");
  logger.error("{}", Explosive{});
  logger.error("after");
  EXPECT_THAT(writtenTexts(), ElementsAre("after"));
}

// Collects the messages of a capture.
struct Captured {
  std::vector<std::string> texts;
  LoggerTable::Receiver receiver = [this](const LogMessage& message) {
    texts.emplace_back(message.text);
  };
};

TEST_F(LoggerTableTest, ACaptureReceivesEveryLevelInsteadOfTheOutput) {
  Logger& logger = table_.loggerForCategory("auth");
  table_.start(recorder_.output(), "error");
  Captured captured;
  table_.beginCapture(captured.receiver);
  logger.debug("one");
  table_.loggerForCategory("made during the capture").debug("two");
  table_.endCapture(captured.receiver);
  EXPECT_THAT(captured.texts, ElementsAre("one", "two"));
  EXPECT_THAT(writtenTexts(), IsEmpty());
}

TEST_F(LoggerTableTest, ACaptureMayStartAtAHigherLevel) {
  Logger& logger = table_.loggerForCategory("auth");
  Captured everything;
  Captured errors;
  table_.beginCapture(everything.receiver);
  table_.beginCapture(errors.receiver, LogLevel::error);
  logger.standard("one");
  EXPECT_FALSE(logger.enabled(LogLevel::debug));
  logger.error("two");
  table_.endCapture(errors.receiver);
  logger.debug("three");
  table_.endCapture(everything.receiver);
  EXPECT_THAT(errors.texts, ElementsAre("two"));
  EXPECT_THAT(everything.texts, ElementsAre("three"));
}

TEST_F(LoggerTableTest, ACaptureRestoresTheLevels) {
  Logger& logger = table_.loggerForCategory("auth");
  Captured captured;
  table_.beginCapture(captured.receiver);
  table_.endCapture(captured.receiver);
  EXPECT_FALSE(logger.enabled(LogLevel::fault));

  table_.start(recorder_.output(), "auth=error");
  table_.beginCapture(captured.receiver);
  table_.endCapture(captured.receiver);
  EXPECT_FALSE(logger.enabled(LogLevel::standard));
  EXPECT_TRUE(logger.enabled(LogLevel::error));
}

TEST_F(LoggerTableTest, StartDuringACaptureTakesEffectAfterIt) {
  Logger& logger = table_.loggerForCategory("auth");
  Captured captured;
  table_.beginCapture(captured.receiver);
  table_.start(recorder_.output(), "error");
  EXPECT_TRUE(logger.enabled(LogLevel::debug));
  table_.endCapture(captured.receiver);
  EXPECT_FALSE(logger.enabled(LogLevel::standard));
}

TEST_F(LoggerTableTest, TheNewestLiveCaptureReceives) {
  Logger& logger = table_.loggerForCategory("auth");
  Captured outer;
  Captured inner;
  table_.beginCapture(outer.receiver);
  logger.error("before");
  table_.beginCapture(inner.receiver);
  logger.error("within");
  table_.endCapture(inner.receiver);
  logger.debug("after");
  table_.endCapture(outer.receiver);
  EXPECT_THAT(outer.texts, ElementsAre("before", "after"));
  EXPECT_THAT(inner.texts, ElementsAre("within"));
}

TEST_F(LoggerTableTest, CapturesMayEndInAnyOrder) {
  Logger& logger = table_.loggerForCategory("auth");
  Captured outer;
  Captured inner;
  table_.beginCapture(outer.receiver);
  table_.beginCapture(inner.receiver);
  table_.endCapture(outer.receiver);
  logger.debug("within");
  table_.endCapture(inner.receiver);
  logger.error("after");
  EXPECT_THAT(outer.texts, IsEmpty());
  EXPECT_THAT(inner.texts, ElementsAre("within"));
  EXPECT_FALSE(logger.enabled(LogLevel::fault));
}

TEST_F(LoggerTableTest, AReceiverMayLookUpALogger) {
  Logger& logger = table_.loggerForCategory("auth");
  Logger* found = nullptr;
  const LoggerTable::Receiver receiver = [&](const LogMessage& message) {
    found = &table_.loggerForCategory(message.category);
  };
  table_.beginCapture(receiver);
  logger.error("text");
  table_.endCapture(receiver);
  EXPECT_EQ(found, &logger);
}

TEST_F(LoggerTableTest, ACaptureReceivesOneMessageAtATime) {
  Logger& logger = table_.loggerForCategory("auth");
  Captured captured;
  table_.beginCapture(captured.receiver);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&logger] {
      for (int i = 0; i < 100; ++i) logger.error("x");
    });
  for (auto& thread : threads) thread.join();
  table_.endCapture(captured.receiver);
  EXPECT_THAT(captured.texts, SizeIs(400));
}

}  // namespace
}  // namespace keel
