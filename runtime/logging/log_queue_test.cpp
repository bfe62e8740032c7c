// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/log_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>

#include "runtime/foundation/crash_stack.h"
#include "runtime/logging/recording_output.h"

namespace keel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

void push(LogQueue& queue, std::string text, std::optional<uid_t> user = std::nullopt) {
  queue.push(LogLevel::error, "auth", std::move(text), 0, user);
}

TEST(LogQueue, WritesMessagesInOrderWithAllTheirParts) {
  Recorder recorder;
  LogQueue queue(recorder.output());
  queue.push(LogLevel::debug, "auth", "first", 0);
  queue.push(LogLevel::fault, "startup", "second", 70000);
  ASSERT_TRUE(queue.flush(kHangTimeout));

  const auto lines = recorder.lines();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[0].level, LogLevel::debug);
  EXPECT_EQ(lines[0].category, "auth");
  EXPECT_EQ(lines[0].text, "first");
  EXPECT_EQ(lines[0].fullBytes, 0U);
  EXPECT_EQ(lines[1].level, LogLevel::fault);
  EXPECT_EQ(lines[1].category, "startup");
  EXPECT_EQ(lines[1].text, "second");
  EXPECT_EQ(lines[1].fullBytes, 70000U);
}

TEST(LogQueue, DestructorWritesWhatIsQueued) {
  Recorder recorder;
  {
    LogQueue queue(recorder.output());
    push(queue, "goodbye");
  }
  EXPECT_THAT(recorder.texts(), ElementsAre("goodbye"));
}

TEST(LogQueue, DatesAMessageWhenItIsPushed) {
  Recorder recorder;
  recorder.closeGate();
  LogQueue queue(recorder.output());
  const auto before = std::chrono::system_clock::now();
  push(queue, "text");
  const auto after = std::chrono::system_clock::now();
  recorder.awaitWriterAtGate();
  recorder.openGate();
  ASSERT_TRUE(queue.flush(kHangTimeout));

  const auto lines = recorder.lines();
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_GE(lines[0].time, before);
  EXPECT_LE(lines[0].time, after);
}

std::size_t countOf(std::string_view text, const std::vector<std::string>& texts) {
  return static_cast<std::size_t>(std::ranges::count(texts, text));
}

// Stalls the output on one message and fills the queue after it.
class FullLogQueue : public ::testing::Test {
 protected:
  FullLogQueue() : queue_(recorder_.output()) {
    recorder_.closeGate();
    push(queue_, "at the gate");
    recorder_.awaitWriterAtGate();
  }
  ~FullLogQueue() override { recorder_.openGate(); }

  Recorder recorder_;
  LogQueue queue_;
};

TEST_F(FullLogQueue, MessagesUpToTheLimitAreKept) {
  for (std::size_t i = 0; i < kLogQueueMessages; ++i) push(queue_, "x");
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  EXPECT_THAT(recorder_.lines(), SizeIs(1 + kLogQueueMessages));
}

TEST_F(FullLogQueue, OneMessageMoreIsLostAndReportedAtTheEnd) {
  for (std::size_t i = 0; i < kLogQueueMessages + 1; ++i) push(queue_, "x");
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));

  const auto lines = recorder_.lines();
  ASSERT_THAT(lines, SizeIs(1 + kLogQueueMessages + 1));
  EXPECT_EQ(lines.back().text, "1 log message was lost because the output did not keep up");
  EXPECT_EQ(lines.back().level, LogLevel::error);
}

TEST_F(FullLogQueue, LossesAreReportedInOneLineBeforeLaterMessages) {
  for (std::size_t i = 0; i < kLogQueueMessages + 5; ++i) push(queue_, "x");
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  push(queue_, "later");
  ASSERT_TRUE(queue_.flush(kHangTimeout));

  const auto texts = recorder_.texts();
  ASSERT_THAT(texts, SizeIs(1 + kLogQueueMessages + 2));
  EXPECT_EQ(texts[texts.size() - 2], "5 log messages were lost because the output did not keep up");
  EXPECT_EQ(texts.back(), "later");
}

TEST_F(FullLogQueue, BytesUpToTheLimitAreKept) {
  push(queue_, std::string(kLogQueueBytes - 1, 'x'));
  push(queue_, "y");
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  EXPECT_THAT(recorder_.lines(), SizeIs(3));
}

TEST_F(FullLogQueue, OneByteMoreIsLost) {
  push(queue_, std::string(kLogQueueBytes - 1, 'x'));
  push(queue_, "yy");
  push(queue_, "z");
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));

  const auto texts = recorder_.texts();
  ASSERT_THAT(texts, SizeIs(4));
  EXPECT_EQ(texts[2], "z");
  EXPECT_EQ(texts[3], "1 log message was lost because the output did not keep up");
}

TEST_F(FullLogQueue, MessagesOfOneUserLeaveRoomForAnothers) {
  for (std::size_t i = 0; i < kLogQueueMessages; ++i) push(queue_, "x", 501);
  push(queue_, "fault", 502);
  push(queue_, "ours");
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));

  const auto texts = recorder_.texts();
  EXPECT_THAT(texts, Contains("fault"));
  EXPECT_THAT(texts, Contains("ours"));
  EXPECT_EQ(countOf("x", texts), kLogQueueMessages / (kLogQueueUserPart + 1));
}

TEST_F(FullLogQueue, BytesOfOneUsersMessagesLeaveRoomForAnothers) {
  const std::string large(kLogMessageBytes, 'x');
  for (std::size_t bytes = 0; bytes < kLogQueueBytes; bytes += large.size())
    push(queue_, large, 501);
  push(queue_, large + "fault", 502);
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));

  const auto texts = recorder_.texts();
  EXPECT_THAT(texts, Contains(large + "fault"));
  EXPECT_LE(countOf(large, texts) * large.size(), kLogQueueBytes / (kLogQueueUserPart + 1));
}

TEST_F(FullLogQueue, TwentyUsersTogetherDoNotFillIt) {
  for (uid_t user = 1000; user < 1020; ++user) {
    for (std::size_t i = 0; i < kLogQueueMessages; ++i) push(queue_, "x", user);
  }
  push(queue_, "fault", 501);
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  EXPECT_THAT(recorder_.texts(), Contains("fault"));
}

TEST_F(FullLogQueue, RootMayFillIt) {
  for (std::size_t i = 0; i < kLogQueueMessages; ++i) push(queue_, "x", 0);
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  EXPECT_THAT(recorder_.lines(), SizeIs(1 + kLogQueueMessages));
}

TEST_F(FullLogQueue, FlushReturnsFalseAfterItsTimeout) {
  EXPECT_FALSE(queue_.flush(std::chrono::milliseconds(0)));
}

TEST_F(FullLogQueue, TakingABatchMakesRoomForMessages) {
  for (std::size_t i = 0; i < kLogQueueMessages; ++i) push(queue_, "x");
  recorder_.openGate();
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  for (std::size_t i = 0; i < kLogQueueMessages; ++i) push(queue_, "x");
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  EXPECT_THAT(recorder_.lines(), SizeIs(::testing::Ge(1 + kLogQueueMessages + 1)));
}

TEST(LogQueue, MessagesRefusedByTheOutputAreReportedOnceItAcceptsMessages) {
  Recorder recorder;
  // Refuses the first message, its report, and the second message.
  LogQueue queue(recorder.output([](std::size_t index) { return index >= 3; }));
  push(queue, "first");
  ASSERT_TRUE(queue.flush(kHangTimeout));
  push(queue, "second");
  ASSERT_TRUE(queue.flush(kHangTimeout));
  push(queue, "third");
  ASSERT_TRUE(queue.flush(kHangTimeout));

  EXPECT_THAT(
      recorder.texts(),
      ElementsAre("first", "1 log message was lost because the output did not keep up", "second",
                  "2 log messages were lost because the output did not keep up", "third"));
}

class ThrowingOutput : public LogOutput {
 public:
  bool write(const LogMessage&) override { throw std::runtime_error("broken output"); }
};

TEST(LogQueue, AnOutputThatThrowsLosesOnlyTheMessage) {
  LogQueue queue(std::make_unique<ThrowingOutput>());
  push(queue, "first");
  EXPECT_TRUE(queue.flush(kHangTimeout));
  push(queue, "second");
  EXPECT_TRUE(queue.flush(kHangTimeout));
}

class LimitedLogQueue : public ::testing::Test {
 protected:
  // How many of `count` lines that a user causes are admitted; those are pushed.
  int pushed(std::optional<uid_t> user, int count, LogLevel level = LogLevel::error) {
    int pushedCount = 0;
    for (int i = 0; i < count; ++i) {
      if (!queue_.admits(user, level, "auth")) continue;
      queue_.push(level, "auth", "x", 0, user);
      ++pushedCount;
    }
    return pushedCount;
  }

  Recorder recorder_;
  LogQueue queue_{recorder_.output(), [] { return LogQueue::Clock::time_point(); }};
};

TEST_F(LimitedLogQueue, LinesBeyondAUsersLimitAreLeftOutAndReported) {
  EXPECT_EQ(pushed(501, kLineBurst + 23), kLineBurst);
  ASSERT_TRUE(queue_.flush(kHangTimeout));
  const auto lines = recorder_.lines();
  ASSERT_THAT(lines, SizeIs(kLineBurst + 1));
  EXPECT_EQ(lines.back().text, "23 lines caused by uid 501 were left out");
  EXPECT_EQ(lines.back().level, LogLevel::error);
  EXPECT_EQ(lines.back().category, "auth");
  EXPECT_EQ(lines.back().user, 501);
}

TEST_F(LimitedLogQueue, TheReportComesWithoutAFlush) {
  EXPECT_EQ(pushed(501, kLineBurst + 1), kLineBurst);
  recorder_.awaitText("1 line caused by uid 501 was left out");
}

TEST_F(LimitedLogQueue, TheEndReportsToo) {
  Recorder recorder;
  {
    LogQueue queue(recorder.output(), [] { return LogQueue::Clock::time_point(); });
    for (int i = 0; i < kLineBurst + 2; ++i) queue.admits(501, LogLevel::debug, "auth");
    for (int i = 0; i < kLineBurst + 2; ++i) queue.admits(501, LogLevel::error, "auth");
  }
  EXPECT_THAT(recorder.texts(), ElementsAre("2 lines caused by uid 501 were left out"));
}

TEST_F(LimitedLogQueue, NeitherRootNorTheDaemonItselfIsLimited) {
  EXPECT_EQ(pushed(0, 10 * kLineBurst), 10 * kLineBurst);
  EXPECT_EQ(pushed(std::nullopt, 10 * kLineBurst), 10 * kLineBurst);
}

struct ThreadFacts {
  std::string name;
  bool pipeBlocked = false;
  bool terminateBlocked = false;
  bool segmentationFaultBlocked = true;
  bool hasCrashStack = false;
};

class ThreadFactsOutput : public LogOutput {
 public:
  explicit ThreadFactsOutput(ThreadFacts& facts) : facts_(facts) {}
  bool write(const LogMessage&) override {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    facts_ = {name, sigismember(&mask, SIGPIPE) == 1, sigismember(&mask, SIGTERM) == 1,
              sigismember(&mask, SIGSEGV) == 1, CrashStack::isInUse()};
    return true;
  }

 private:
  ThreadFacts& facts_;
};

TEST(LogQueue, TheThreadHasItsNameAndBlocksAllSignalsButItsOwnFaults) {
  ThreadFacts facts;
  LogQueue queue(std::make_unique<ThreadFactsOutput>(facts));
  push(queue, "text");
  ASSERT_TRUE(queue.flush(kHangTimeout));
  EXPECT_EQ(facts.name, "keel-log");
  EXPECT_TRUE(facts.pipeBlocked);
  EXPECT_TRUE(facts.terminateBlocked);
  EXPECT_FALSE(facts.segmentationFaultBlocked);
  EXPECT_TRUE(facts.hasCrashStack);
}

TEST(LogQueue, PreservesTheSignalMaskOfItsCreator) {
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, nullptr, &before);
  Recorder recorder;
  LogQueue queue(recorder.output());
  sigset_t after;
  pthread_sigmask(SIG_BLOCK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
  EXPECT_EQ(sigismember(&after, SIGPIPE), sigismember(&before, SIGPIPE));
  EXPECT_THAT(recorder.lines(), IsEmpty());
}

TEST(LogQueue, LosesNothingOfManyThreadsBelowTheLimit) {
  constexpr std::size_t kThreads = 4;
  Recorder recorder;
  LogQueue queue(recorder.output());
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t)
    threads.emplace_back([&queue] {
      for (std::size_t i = 0; i < kLogQueueMessages / kThreads; ++i) push(queue, "x");
    });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(queue.flush(kHangTimeout));
  EXPECT_THAT(recorder.lines(), SizeIs(kLogQueueMessages));
}

}  // namespace
}  // namespace keel
