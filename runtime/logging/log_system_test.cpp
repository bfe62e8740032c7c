// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/log_system.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "runtime/logging/recording_output.h"

namespace keel {
namespace {

using ::testing::ElementsAre;

TEST(LoggerForCategory, ReturnsTheSameLoggerForTheSameName) {
  EXPECT_EQ(&_loggerForCategory("notification"), &_loggerForCategory("notification"));
  EXPECT_EQ(_loggerForCategory("notification").category(), "notification");
  EXPECT_NE(&_loggerForCategory("notification"), &_loggerForCategory("auth"));
}

TEST(LoggerForCategory, NullIsTheEmptyName) {
  EXPECT_EQ(&_loggerForCategory(nullptr), &_loggerForCategory(""));
}

TEST(LogCapture, ReceivesUntilItIsDestroyed) {
  Logger& logger = _loggerForCategory("notification");
  std::vector<std::string> outer;
  std::vector<std::string> inner;
  {
    const LogCapture capture([&](const LogMessage& message) {
      outer.push_back(std::string(message.category) + ": " + std::string(message.text));
    });
    logger.debug("one");
    {
      const LogCapture nested([&](const LogMessage& message) { inner.emplace_back(message.text); });
      logger.debug("two");
    }
    logger.fault("three");
  }
  logger.fault("four");
  EXPECT_THAT(outer, ElementsAre("notification: one", "notification: three"));
  EXPECT_THAT(inner, ElementsAre("two"));
}

// Logging starts once per process, so each of these runs in a process of its own.

[[noreturn]] void exitWhileOthersLog() {
  startLogging(standardErrorOutput(false), "debug");
  Logger& logger = _loggerForCategory("notification");
  std::atomic<bool> running{false};
  std::thread([&] {
    while (true) {
      logger.error("chatter");
      running = true;
      running.notify_one();
    }
  }).detach();
  running.wait(false);
  std::exit(flushLog(kHangTimeout) ? 7 : 1);
}

TEST(StartLoggingDeathTest, ExitWorksWhileOtherThreadsLog) {
  EXPECT_EXIT(exitWhileOthersLog(), ::testing::ExitedWithCode(7), "chatter");
}

[[noreturn]] void logFlushAndEnd() {
  startLogging(standardErrorOutput(false), "");
  _loggerForCategory("auth").standard("not {}", "admin\x1b[2J");
  const bool flushed = flushLog(kHangTimeout);
  ::_exit(flushed ? 0 : 1);
}

TEST(StartLoggingDeathTest, FlushedMessagesAreOnStandardError) {
  EXPECT_EXIT(
      logFlushAndEnd(), ::testing::ExitedWithCode(0),
      "^[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] default auth: not admin\\\\x1b\\[2J\n$");
}

[[noreturn]] void logWithClosedStandardError() {
  ::close(STDERR_FILENO);
  startLogging(standardErrorOutput(false), "");
  _loggerForCategory("auth").error("lost");
  const bool flushed = flushLog(kHangTimeout);
  ::_exit(flushed ? 0 : 1);
}

TEST(StartLoggingDeathTest, AClosedStandardErrorIsHarmless) {
  EXPECT_EXIT(logWithClosedStandardError(), ::testing::ExitedWithCode(0), "");
}

[[noreturn]] void logAfterReaderIsGone() {
  int ends[2];
  if (::pipe(ends) != 0 || ::dup2(ends[1], STDERR_FILENO) < 0) ::_exit(2);
  ::close(ends[0]);
  ::close(ends[1]);
  startLogging(standardErrorOutput(false), "");
  _loggerForCategory("auth").error("lost");
  const bool flushed = flushLog(kHangTimeout);
  ::_exit(flushed ? 0 : 1);
}

TEST(StartLoggingDeathTest, AReaderThatIsGoneIsHarmless) {
  EXPECT_EXIT(logAfterReaderIsGone(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace keel
