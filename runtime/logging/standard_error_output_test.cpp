// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/standard_error_output.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <limits>

namespace keel {
namespace {

using ::testing::EndsWith;

LogMessage message(std::string_view text, LogLevel level = LogLevel::error) {
  return {level, "notification", text};
}

struct Pipe {
  explicit Pipe(int flags = 0) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | flags) != 0) std::abort();
    reading.reset(ends[0]);
    writing.reset(ends[1]);
  }
  std::string read() const {
    std::string text(64 * 1024, '\0');
    const ssize_t count = ::read(reading.get(), text.data(), text.size());
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
  }
  FileDescriptor reading;
  FileDescriptor writing;
};

class LogLine : public ::testing::Test {
 protected:
  // A time zone without daylight saving, east of Greenwich by 05:30.
  LogLine() {
    ::setenv("TZ", "XST-5:30", /*replace=*/1);
    ::tzset();
  }
  ~LogLine() override {
    ::unsetenv("TZ");
    ::tzset();
  }
};

TEST_F(LogLine, ShowsLocalTimeLevelCategoryAndText) {
  LogMessage logged = message("no such item");
  logged.time = std::chrono::system_clock::time_point(std::chrono::seconds(7 * 3600 + 4 * 60 + 56) +
                                                      std::chrono::milliseconds(789));
  EXPECT_EQ(logLine(logged, /*colour=*/false), "12:34:56.789 error notification: no such item\n");
}

TEST_F(LogLine, PadsNumbersWithZeros) {
  LogMessage logged = message("text");
  logged.time =
      std::chrono::system_clock::time_point(std::chrono::hours(19) + std::chrono::minutes(31) +
                                            std::chrono::seconds(2) + std::chrono::milliseconds(3));
  EXPECT_EQ(logLine(logged, /*colour=*/false), "01:01:02.003 error notification: text\n");
}

TEST_F(LogLine, EveryLevelHasItsNameAndColour) {
  EXPECT_THAT(logLine(message("x", LogLevel::debug), false), EndsWith(" debug notification: x\n"));
  EXPECT_THAT(logLine(message("x", LogLevel::standard), false),
              EndsWith(" default notification: x\n"));
  EXPECT_THAT(logLine(message("x", LogLevel::fault), false), EndsWith(" fault notification: x\n"));
  EXPECT_THAT(logLine(message("x", LogLevel::debug), true),
              EndsWith(" \x1b[2mdebug\x1b[0m notification: x\n"));
  EXPECT_THAT(logLine(message("x", LogLevel::standard), true),
              EndsWith(" default notification: x\n"));
  EXPECT_THAT(logLine(message("x", LogLevel::error), true),
              EndsWith(" \x1b[31merror\x1b[0m notification: x\n"));
  EXPECT_THAT(logLine(message("x", LogLevel::fault), true),
              EndsWith(" \x1b[1;31mfault\x1b[0m notification: x\n"));
}

TEST_F(LogLine, NamesTheUserWhoCausedTheMessage) {
  LogMessage logged = message("x");
  logged.user = 501;
  EXPECT_THAT(logLine(logged, false), EndsWith(" error [uid 501] notification: x\n"));
}

TEST_F(LogLine, HostileTextStaysOnItsLine) {
  EXPECT_THAT(logLine(message("a\n12:00:00.000 fault auth: forged\x1b]0;x\x07"), false),
              EndsWith("notification: a\\n12:00:00.000 fault auth: forged\\x1b]0;x\\x07\n"));
}

TEST_F(LogLine, ATextOfTheLimitIsComplete) {
  const std::string text(kShownTextBytes, 'x');
  EXPECT_THAT(logLine(message(text), false), EndsWith(": " + text + "\n"));
}

TEST_F(LogLine, ATextAboveTheLimitIsTruncatedWithItsSize) {
  const std::string text(kShownTextBytes + 1, 'x');
  EXPECT_THAT(logLine(message(text), false),
              EndsWith(": " + std::string(kShownTextBytes, 'x') + "... (1025 bytes)\n"));
}

TEST_F(LogLine, ATruncatedTextShowsItsFullSize) {
  const std::string text(kLogMessageBytes, 'x');
  LogMessage logged = message(text);
  logged.fullBytes = 1000000;
  EXPECT_THAT(logLine(logged, false), EndsWith("... (1000000 bytes)\n"));
}

TEST_F(LogLine, StaysBelowAnAtomicPipeWrite) {
  const std::string hostile(kLogMessageBytes, '\x1b');
  LogMessage logged{LogLevel::fault, hostile, hostile};
  logged.user = std::numeric_limits<uid_t>::max();
  EXPECT_LE(logLine(logged, /*colour=*/true).size(), static_cast<std::size_t>(PIPE_BUF));
}

TEST(LineOutput, WritesTheLine) {
  Pipe pipe;
  LineOutput output(std::move(pipe.writing), /*colour=*/false);
  EXPECT_TRUE(output.write(message("text")));
  EXPECT_THAT(pipe.read(), EndsWith("error notification: text\n"));
}

TEST(LineOutput, AFullNonBlockingPipeLosesWholeLines) {
  Pipe pipe(O_NONBLOCK);
  LineOutput output(std::move(pipe.writing), /*colour=*/false);
  const std::string text(1000, 'x');
  while (output.write(message(text))) {
  }
  EXPECT_FALSE(output.write(message(text)));
  const std::string read = pipe.read();
  EXPECT_THAT(read, EndsWith("x\n"));
  EXPECT_TRUE(output.write(message("again")));
  EXPECT_THAT(pipe.read(), EndsWith(": again\n"));
}

TEST(LineOutput, AReaderThatIsGoneLosesTheMessage) {
  sigset_t pipeSignal;
  sigset_t before;
  ::sigemptyset(&pipeSignal);
  ::sigaddset(&pipeSignal, SIGPIPE);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &pipeSignal, &before), 0);
  Pipe pipe;
  pipe.reading.reset();
  LineOutput output(std::move(pipe.writing), /*colour=*/false);
  EXPECT_FALSE(output.write(message("text")));
  const timespec now{};
  EXPECT_EQ(::sigtimedwait(&pipeSignal, nullptr, &now), SIGPIPE);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
}

TEST(LineOutput, AMissingDescriptorLosesTheMessage) {
  LineOutput output(FileDescriptor(), /*colour=*/false);
  EXPECT_FALSE(output.write(message("text")));
}

TEST(IsJournalStream, TrueForThatFileAlone) {
  Pipe pipe;
  struct stat status{};
  ASSERT_EQ(::fstat(pipe.writing.get(), &status), 0);
  const auto stream = [](auto device, auto inode) { return fmt::format("{}:{}", device, inode); };
  EXPECT_TRUE(isJournalStream(pipe.writing.get(), stream(status.st_dev, status.st_ino).c_str()));
  EXPECT_FALSE(
      isJournalStream(pipe.writing.get(), stream(status.st_dev, status.st_ino + 1).c_str()));
  EXPECT_FALSE(
      isJournalStream(pipe.writing.get(), stream(status.st_dev + 1, status.st_ino).c_str()));
  EXPECT_FALSE(
      isJournalStream(pipe.writing.get(), (stream(status.st_dev, status.st_ino) + "0").c_str()));
  EXPECT_FALSE(isJournalStream(pipe.writing.get(), ""));
}

TEST(IsJournalStream, FalseWithoutAStreamOrDescriptor) {
  EXPECT_FALSE(isJournalStream(STDERR_FILENO, nullptr));
  EXPECT_FALSE(isJournalStream(-1, "1:1"));
}

}  // namespace
}  // namespace keel
