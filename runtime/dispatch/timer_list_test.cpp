// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/timer_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace keel {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using testing::ElementsAre;

class TimerListTest : public testing::Test {
 protected:
  Block record(int entry) {
    return [this, entry] { ran_.push_back(entry); };
  }

  const TimerList::TimePoint start_{milliseconds(1000)};
  TimerList timers_;
  std::vector<int> ran_;
};

TEST_F(TimerListTest, RunsATimerWhenItIsDueAndNotBefore) {
  timers_.add(start_ + milliseconds(5), record(1));
  EXPECT_FALSE(timers_.runDue(start_ + milliseconds(5) - nanoseconds(1)));
  EXPECT_THAT(ran_, ElementsAre());
  EXPECT_TRUE(timers_.runDue(start_ + milliseconds(5)));
  EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(TimerListTest, RunsATimerOnce) {
  timers_.add(start_, record(1));
  timers_.runDue(start_);
  EXPECT_FALSE(timers_.runDue(start_ + milliseconds(1)));
  EXPECT_THAT(ran_, ElementsAre(1));
  EXPECT_TRUE(timers_.empty());
}

TEST_F(TimerListTest, RunsTimersByDueTimeThenByAddition) {
  timers_.add(start_ + milliseconds(2), record(2));
  timers_.add(start_ + milliseconds(1), record(1));
  timers_.add(start_ + milliseconds(2), record(3));
  timers_.runDue(start_ + milliseconds(2));
  EXPECT_THAT(ran_, ElementsAre(1, 2, 3));
}

TEST_F(TimerListTest, NextDueIsTheTimeOfTheFirstTimer) {
  EXPECT_EQ(timers_.nextDue(), std::nullopt);
  timers_.add(start_ + milliseconds(2), record(1));
  const auto first = timers_.add(start_ + milliseconds(1), record(2));
  EXPECT_EQ(timers_.nextDue(), start_ + milliseconds(1));
  timers_.cancel(first);
  EXPECT_EQ(timers_.nextDue(), start_ + milliseconds(2));
}

TEST_F(TimerListTest, DoesNotRunACancelledTimer) {
  const auto held = std::make_shared<int>();
  const auto timer = timers_.add(start_, [held] { FAIL(); });
  timers_.cancel(timer);
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(timers_.runDue(start_));
}

TEST_F(TimerListTest, CancellingAnUnknownTimerHasNoEffect) {
  const auto timer = timers_.add(start_, record(1));
  timers_.add(start_ + milliseconds(1), record(2));
  timers_.runDue(start_);
  timers_.cancel(timer);
  timers_.cancel(0);
  timers_.runDue(start_ + milliseconds(1));
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(TimerListTest, ATimerMayCancelAnotherDueTimer) {
  TimerList::Id second = 0;
  timers_.add(start_, [this, &second] { timers_.cancel(second); });
  second = timers_.add(start_, record(2));
  timers_.add(start_, record(3));
  timers_.runDue(start_);
  EXPECT_THAT(ran_, ElementsAre(3));
}

TEST_F(TimerListTest, ATimerAddedByATimerIsLeftForTheNextRun) {
  timers_.add(start_, [this] { timers_.add(start_, record(2)); });
  timers_.add(start_, record(1));
  timers_.runDue(start_);
  EXPECT_THAT(ran_, ElementsAre(1));
  timers_.runDue(start_);
  EXPECT_THAT(ran_, ElementsAre(1, 2));
}

TEST_F(TimerListTest, TheDestructorOfACancelledBlockMayAddAndCancel) {
  const auto other = timers_.add(start_, record(1));
  const auto cancelsAndAdds = [this, other](void*) {
    timers_.cancel(other);
    timers_.add(start_, record(2));
  };
  const auto timer =
      timers_.add(start_, [held = std::shared_ptr<void>(nullptr, cancelsAndAdds)] { FAIL(); });
  timers_.cancel(timer);
  timers_.runDue(start_);
  EXPECT_THAT(ran_, ElementsAre(2));
}

}  // namespace
}  // namespace keel
