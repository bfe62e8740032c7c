// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/reactor.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    reading.reset(ends[0]);
    writing.reset(ends[1]);
  }
  void fill() const { EXPECT_EQ(write(writing.get(), "x", 1), 1); }
  void drain() const {
    char byte = 0;
    EXPECT_EQ(read(reading.get(), &byte, 1), 1);
  }
  FileDescriptor reading;
  FileDescriptor writing;
};

class Recorder final : public Reactor::Watcher {
 public:
  void onReady(std::uint32_t ready) override {
    events.push_back(ready);
    if (action) action();
  }
  std::vector<std::uint32_t> events;
  std::function<void()> action;
};

class Hook final : public EndOfTurnHook {
 public:
  explicit Hook(std::function<void()> action) : action_(std::move(action)) {}
  void onEndOfTurn() override { action_(); }

 private:
  std::function<void()> action_;
};

class ReactorTest : public testing::Test {
 protected:
  bool turn() { return reactor_.turn(/*wait=*/false); }
  // Hangs if the reactor waits although there is something to do.
  bool waitingTurn() { return reactor_.turn(/*wait=*/true); }
  Block record(int entry) {
    return [this, entry] { ran_.push_back(entry); };
  }

  Reactor::Clock::time_point now_{milliseconds(1000)};
  Reactor reactor_{[this] { return now_; }};
  std::vector<int> ran_;
};

TEST_F(ReactorTest, TurnReturnsFalseWhenThereIsNothingToDo) {
  EXPECT_FALSE(turn());
}

TEST_F(ReactorTest, LongTurnsHalveTheReadBudgetAndFullReadsDoubleIt) {
  const auto turnOf = [this](Reactor::Clock::duration duration, bool fullRead) {
    reactor_.post([this, duration, fullRead] {
      if (fullRead) reactor_.noteRead(reactor_.readBudgetBytes());
      now_ += duration;
    });
    turn();
    return reactor_.readBudgetBytes();
  };
  const auto kShort = Reactor::kLongTurn;
  const auto kLong = Reactor::kLongTurn + milliseconds(1);
  EXPECT_EQ(reactor_.readBudgetBytes(), Reactor::kMinimumReadBudgetBytes);
  EXPECT_EQ(turnOf(kShort, false), Reactor::kMinimumReadBudgetBytes);
  EXPECT_EQ(turnOf(kShort, true), Reactor::kMinimumReadBudgetBytes * 2);
  EXPECT_EQ(turnOf(kShort, true), Reactor::kMinimumReadBudgetBytes * 4);
  EXPECT_EQ(turnOf(kLong, true), Reactor::kMinimumReadBudgetBytes * 2);
  EXPECT_EQ(turnOf(kShort, false), Reactor::kMinimumReadBudgetBytes);
  EXPECT_EQ(turnOf(kLong, false), Reactor::kMinimumReadBudgetBytes);
  // Time before the full read does not count.
  reactor_.post([this] {
    now_ += Reactor::kLongTurn + milliseconds(1);
    reactor_.noteRead(reactor_.readBudgetBytes());
  });
  turn();
  EXPECT_EQ(reactor_.readBudgetBytes(), Reactor::kMinimumReadBudgetBytes * 2);
  for (int i = 0; i < 20; ++i) turnOf(kShort, true);
  EXPECT_EQ(reactor_.readBudgetBytes(), Reactor::kMaximumReadBudgetBytes);
  for (int i = 0; i < 20; ++i) turnOf(kLong, true);
  EXPECT_EQ(reactor_.readBudgetBytes(), Reactor::kMinimumReadBudgetBytes);
}

TEST_F(ReactorTest, CallsAWatcherWhileItsDescriptorIsReady) {
  const Pipe pipe;
  Recorder watcher;
  reactor_.watch(pipe.reading.get(), EPOLLIN, watcher);
  EXPECT_FALSE(turn());
  pipe.fill();
  EXPECT_TRUE(turn());
  EXPECT_TRUE(turn());
  EXPECT_THAT(watcher.events, ElementsAre(EPOLLIN, EPOLLIN));
  pipe.drain();
  EXPECT_FALSE(turn());
  reactor_.unwatch(pipe.reading.get(), watcher);
}

TEST_F(ReactorTest, ReportsAHangUpThatIsNotWatchedFor) {
  Pipe pipe;
  Recorder watcher;
  reactor_.watch(pipe.reading.get(), 0, watcher);
  pipe.fill();
  EXPECT_FALSE(turn());
  pipe.writing.reset();
  EXPECT_TRUE(turn());
  EXPECT_THAT(watcher.events, ElementsAre(EPOLLHUP));
  reactor_.unwatch(pipe.reading.get(), watcher);
}

TEST_F(ReactorTest, ReportsTheEventsOfTheLastRewatch) {
  const Pipe pipe;
  Recorder watcher;
  reactor_.watch(pipe.writing.get(), 0, watcher);
  EXPECT_FALSE(turn());
  reactor_.rewatch(pipe.writing.get(), EPOLLOUT, watcher);
  EXPECT_TRUE(turn());
  reactor_.rewatch(pipe.writing.get(), 0, watcher);
  EXPECT_FALSE(turn());
  EXPECT_THAT(watcher.events, ElementsAre(EPOLLOUT));
  reactor_.unwatch(pipe.writing.get(), watcher);
}

TEST_F(ReactorTest, DoesNotReportAnUnwatchedDescriptor) {
  const Pipe pipe;
  Recorder watcher;
  reactor_.watch(pipe.reading.get(), EPOLLIN, watcher);
  pipe.fill();
  reactor_.unwatch(pipe.reading.get(), watcher);
  EXPECT_FALSE(turn());
  reactor_.watch(pipe.reading.get(), EPOLLIN, watcher);
  EXPECT_TRUE(turn());
  reactor_.unwatch(pipe.reading.get(), watcher);
}

TEST_F(ReactorTest, AWatcherUnwatchedInTheSameTurnIsNotCalled) {
  const Pipe first;
  const Pipe second;
  Recorder a;
  Recorder b;
  reactor_.watch(first.reading.get(), EPOLLIN, a);
  reactor_.watch(second.reading.get(), EPOLLIN, b);
  first.fill();
  second.fill();
  // Whichever is called first unwatches the other.
  a.action = [&] { reactor_.unwatch(second.reading.get(), b); };
  b.action = [&] { reactor_.unwatch(first.reading.get(), a); };
  EXPECT_TRUE(turn());
  EXPECT_EQ(a.events.size() + b.events.size(), 1U);
}

TEST_F(ReactorTest, AStaleEventDoesNotReachTheNextWatcherOfTheSameDescriptor) {
  Pipe pipes[2];
  const Pipe quiet;
  Recorder watchers[2];
  Recorder successor;
  for (int i : {0, 1}) {
    reactor_.watch(pipes[i].reading.get(), EPOLLIN, watchers[i]);
    pipes[i].fill();
    // Closes the other's descriptor; its number goes to an empty pipe.
    watchers[i].action = [&, i] {
      const int number = pipes[1 - i].reading.get();
      reactor_.unwatch(number, watchers[1 - i]);
      ASSERT_EQ(dup2(quiet.reading.get(), number), number);
      reactor_.watch(number, EPOLLIN, successor);
    };
  }
  EXPECT_TRUE(turn());
  EXPECT_EQ(watchers[0].events.size() + watchers[1].events.size(), 1U);
  EXPECT_TRUE(successor.events.empty());
  quiet.fill();
  watchers[0].action = watchers[1].action = nullptr;
  EXPECT_TRUE(turn());
  EXPECT_EQ(successor.events.size(), 1U);
}

TEST_F(ReactorTest, AWatcherRewatchedInTheSameTurnReceivesOnlyTheRemainingEvents) {
  const Pipe first;
  const Pipe second;
  Recorder a;
  Recorder b;
  reactor_.watch(first.reading.get(), EPOLLIN, a);
  reactor_.watch(second.reading.get(), EPOLLIN, b);
  first.fill();
  second.fill();
  a.action = [&] { reactor_.rewatch(second.reading.get(), 0, b); };
  b.action = [&] { reactor_.rewatch(first.reading.get(), 0, a); };
  EXPECT_TRUE(turn());
  EXPECT_EQ(a.events.size() + b.events.size(), 1U);
}

TEST_F(ReactorTest, CallsMoreWatchersThanOneTurnFetches) {
  constexpr std::size_t kCount = 300;
  std::vector<Pipe> pipes(kCount);
  std::vector<Recorder> watchers(kCount);
  for (std::size_t i = 0; i < kCount; ++i) {
    reactor_.watch(pipes[i].reading.get(), EPOLLIN, watchers[i]);
    pipes[i].fill();
    watchers[i].action = [&pipes, i] { pipes[i].drain(); };
  }
  EXPECT_TRUE(turn());
  EXPECT_TRUE(turn());
  EXPECT_FALSE(turn());
  for (const Recorder& watcher : watchers) EXPECT_EQ(watcher.events.size(), 1U);
}

TEST_F(ReactorTest, RunsPostedBlocksInOrderAndNotWithinPost) {
  reactor_.post(record(1));
  reactor_.post(record(2));
  EXPECT_THAT(ran_, ElementsAre());
  EXPECT_TRUE(turn());
  EXPECT_THAT(ran_, ElementsAre(1, 2));
  EXPECT_FALSE(turn());
}

TEST_F(ReactorTest, RunsABlockPostedByABlockInTheSameTurn) {
  reactor_.post([this] {
    reactor_.post(record(2));
    ran_.push_back(1);
  });
  EXPECT_TRUE(turn());
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(ReactorTest, RunsAQueueThatAWatcherFeedsInTheSameTurn) {
  const Pipe pipe;
  Recorder watcher;
  const auto queue = SerialQueue::create("test", reactor_);
  watcher.action = [this, &queue] { queue->async(record(1)); };
  reactor_.watch(pipe.reading.get(), EPOLLIN, watcher);
  pipe.fill();
  EXPECT_TRUE(turn());
  EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(ReactorTest, DoesNotWaitWhileItsOwnThreadHasSubmittedWork) {
  EXPECT_FALSE(turn());
  const auto queue = SerialQueue::create("test", reactor_);
  queue->async(record(1));
  EXPECT_TRUE(waitingTurn());
  reactor_.post(record(2));
  EXPECT_TRUE(waitingTurn());
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(ReactorTest, AQueueThatFeedsItselfStarvesNoSocketTimerOrHook) {
  const Pipe pipe;
  Recorder watcher;
  reactor_.watch(pipe.reading.get(), EPOLLIN, watcher);
  const auto queue = SerialQueue::create("endless", reactor_);
  int rounds = 0;
  Hook hook([this] { ran_.push_back(1); });
  const std::function<void()> feed = [&] {
    if (rounds++ == 0) {
      pipe.fill();
      reactor_.after(milliseconds(0), record(2));
      reactor_.atEndOfTurn(reactor_.ownShare(), hook, EndOfTurnHook::Urgency::normal);
    }
    queue->async(std::ref(feed));
  };
  queue->async(std::ref(feed));
  turn();
  EXPECT_EQ(rounds, 16);
  EXPECT_THAT(ran_, ElementsAre(1));
  EXPECT_TRUE(watcher.events.empty());
  waitingTurn();
  EXPECT_EQ(rounds, 32);
  EXPECT_THAT(ran_, ElementsAre(1, 2));
  EXPECT_EQ(watcher.events.size(), 1U);
}

TEST_F(ReactorTest, APostThatRepostsItselfDoesNotKeepTheTurnFromEnding) {
  int rounds = 0;
  const std::function<void()> again = [&] {
    ++rounds;
    reactor_.post(std::ref(again));
  };
  reactor_.post(std::ref(again));
  EXPECT_TRUE(turn());
  EXPECT_EQ(rounds, 16);
  EXPECT_TRUE(waitingTurn());
  EXPECT_EQ(rounds, 32);
}

TEST_F(ReactorTest, RunsATimerWhenItIsDueAndNotBefore) {
  reactor_.after(milliseconds(5), record(1));
  now_ += milliseconds(4);
  EXPECT_FALSE(turn());
  now_ += milliseconds(1);
  EXPECT_TRUE(waitingTurn());
  EXPECT_THAT(ran_, ElementsAre(1));
  EXPECT_FALSE(turn());
}

TEST_F(ReactorTest, ANegativeDelayIsZero) {
  reactor_.after(milliseconds(0), record(1));
  reactor_.after(milliseconds(-5), record(2));
  EXPECT_TRUE(turn());
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(ReactorTest, DoesNotRunACancelledTimer) {
  const auto timer = reactor_.after(milliseconds(0), record(1));
  reactor_.cancel(timer);
  EXPECT_FALSE(turn());
}

TEST_F(ReactorTest, WaitsForATimerOnTheRealClock) {
  Reactor real;
  bool ran = false;
  real.after(milliseconds(2), [&ran] { ran = true; });
  while (!ran) real.turn(/*wait=*/true);
}

TEST_F(ReactorTest, RunsHooksAfterTheBlocksOfTheTurnUrgentHooksFirst) {
  Hook normal([this] { ran_.push_back(3); });
  Hook urgent([this] { ran_.push_back(2); });
  reactor_.atEndOfTurn(reactor_.ownShare(), normal, EndOfTurnHook::Urgency::normal);
  reactor_.atEndOfTurn(reactor_.ownShare(), urgent, EndOfTurnHook::Urgency::urgent);
  reactor_.post(record(1));
  EXPECT_TRUE(waitingTurn());
  EXPECT_THAT(ran_, ElementsAre(1, 2, 3));
}

TEST_F(ReactorTest, AHookThatRegistersItselfAgainRunsInTheNextTurnWhichDoesNotWait) {
  int runs = 0;
  std::unique_ptr<Hook> hook;
  hook = std::make_unique<Hook>([&] {
    if (++runs < 3)
      reactor_.atEndOfTurn(reactor_.ownShare(), *hook, EndOfTurnHook::Urgency::normal);
  });
  reactor_.atEndOfTurn(reactor_.ownShare(), *hook, EndOfTurnHook::Urgency::normal);
  EXPECT_TRUE(waitingTurn());
  EXPECT_EQ(runs, 1);
  EXPECT_TRUE(waitingTurn());
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(waitingTurn());
  EXPECT_EQ(runs, 3);
  EXPECT_FALSE(turn());
}

TEST_F(ReactorTest, ReleasesAQueueRightAfterItsBatch) {
  std::weak_ptr<SerialQueue> first;
  {
    const auto queue = SerialQueue::create("first", reactor_);
    first = queue;
    queue->async(record(1));
  }
  const auto second = SerialQueue::create("second", reactor_);
  second->async([this, &first] { ran_.push_back(first.expired() ? 2 : -2); });
  turn();
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(ReactorTest, DestroysWhatDidNotRun) {
  std::weak_ptr<SerialQueue> released;
  int destroyed = 0;
  {
    Reactor dying;
    dying.turn(/*wait=*/false);
    const auto queue = SerialQueue::create("test", dying);
    released = queue;
    queue->async([queue] { FAIL(); });
    // Destroyed as a timer, it posts; destroyed as a post, it sets a timer.
    const auto counts = [&destroyed](void*) { ++destroyed; };
    const auto posts = [&dying, counts](void*) {
      dying.post([held = std::shared_ptr<void>(nullptr, counts)] { FAIL(); });
    };
    const auto sets = [&dying, posts](void*) {
      dying.after(milliseconds(0), [held = std::shared_ptr<void>(nullptr, posts)] { FAIL(); });
    };
    dying.post([held = std::shared_ptr<void>(nullptr, sets)] { FAIL(); });
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(released.expired());
}

}  // namespace
}  // namespace keel
