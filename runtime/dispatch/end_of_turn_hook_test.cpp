// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/end_of_turn_hook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace keel {
namespace {

using testing::ElementsAre;
using enum EndOfTurnHook::Urgency;

class Hook final : public EndOfTurnHook {
 public:
  Hook(std::string name, std::vector<std::string>& told) : name_(std::move(name)), told_(told) {}
  void onEndOfTurn() override {
    told_.push_back(name_);
    if (action) action();
  }
  using EndOfTurnHook::cancelEndOfTurn;

  std::function<void()> action;

 private:
  const std::string name_;
  std::vector<std::string>& told_;
};

class EndOfTurnTest : public testing::Test {
 protected:
  std::vector<std::string> told_;
  EndOfTurnHooks lists_;
  Hook a_{"a", told_};
  Hook b_{"b", told_};
  Hook c_{"c", told_};
};

TEST_F(EndOfTurnTest, TellsInTheOrderOfTheAdding) {
  lists_.add(a_, normal);
  lists_.add(b_, normal);
  lists_.add(c_, normal);
  EXPECT_TRUE(lists_.tell());
  EXPECT_THAT(told_, ElementsAre("a", "b", "c"));
}

TEST_F(EndOfTurnTest, TellsUrgentOnesFirst) {
  lists_.add(a_, normal);
  lists_.add(b_, urgent);
  lists_.add(c_, urgent);
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("b", "c", "a"));
}

TEST_F(EndOfTurnTest, TellsOnceHoweverOftenAsked) {
  lists_.add(a_, normal);
  lists_.add(a_, normal);
  EXPECT_TRUE(lists_.tell());
  EXPECT_FALSE(lists_.tell());
  EXPECT_THAT(told_, ElementsAre("a"));
}

TEST_F(EndOfTurnTest, UrgentWinsOverNormalInEitherOrder) {
  lists_.add(a_, normal);
  lists_.add(b_, normal);
  lists_.add(b_, urgent);
  lists_.add(c_, urgent);
  lists_.add(c_, normal);
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("b", "c", "a"));
}

TEST_F(EndOfTurnTest, TellsNobodyWhoCancelled) {
  lists_.add(a_, normal);
  lists_.add(b_, normal);
  lists_.add(c_, normal);
  b_.cancelEndOfTurn();
  b_.cancelEndOfTurn();
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a", "c"));
  lists_.add(b_, normal);
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a", "c", "b"));
}

TEST_F(EndOfTurnTest, ForgetsADestroyedHook) {
  std::optional<Hook> gone;
  gone.emplace("gone", told_);
  lists_.add(a_, normal);
  lists_.add(*gone, normal);
  gone.reset();
  EXPECT_TRUE(lists_.tell());
  EXPECT_THAT(told_, ElementsAre("a"));
  gone.emplace("gone", told_);
  lists_.add(*gone, urgent);
  gone.reset();
  EXPECT_TRUE(lists_.empty());
}

TEST_F(EndOfTurnTest, AHookMayDestroyItselfAndOneThatIsToBeTold) {
  std::optional<Hook> self;
  self.emplace("self", told_);
  std::optional<Hook> other;
  other.emplace("other", told_);
  // The action is destroyed with its hook while it runs, so it is kept here.
  const auto destroyBoth = [&self, &other] {
    other.reset();
    self.reset();
  };
  self->action = std::ref(destroyBoth);
  lists_.add(*self, normal);
  lists_.add(*other, normal);
  lists_.add(a_, normal);
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("self", "a"));
}

TEST_F(EndOfTurnTest, AHookThatAsksWhileBeingToldIsToldTheNextTime) {
  a_.action = [this] { lists_.add(a_, normal); };
  lists_.add(a_, normal);
  EXPECT_FALSE(lists_.empty());
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a"));
  EXPECT_FALSE(lists_.empty());
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a", "a"));
}

TEST_F(EndOfTurnTest, AnUrgentHookThatAsksForAnotherHasItToldTheNextTime) {
  a_.action = [this] { lists_.add(b_, normal); };
  lists_.add(a_, urgent);
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a"));
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a", "b"));
}

TEST_F(EndOfTurnTest, OneThatIsAboutToBeToldIsNotPutOffByBecomingUrgent) {
  a_.action = [this] { lists_.add(b_, urgent); };
  lists_.add(a_, urgent);
  lists_.add(b_, normal);
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a", "b"));
  EXPECT_TRUE(lists_.empty());
}

TEST_F(EndOfTurnTest, OneThatAsksForTheNextTimeMayBecomeUrgentForIt) {
  a_.action = [this] {
    lists_.add(b_, normal);
    lists_.add(a_, normal);
    lists_.add(a_, urgent);
  };
  lists_.add(a_, normal);
  lists_.tell();
  a_.action = nullptr;
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a", "a", "b"));
}

TEST_F(EndOfTurnTest, DestroyedListsLeaveTheirHooksFreeForOthers) {
  {
    EndOfTurnHooks others;
    others.add(a_, normal);
    others.add(b_, urgent);
  }
  lists_.add(a_, normal);
  lists_.add(b_, normal);
  lists_.tell();
  EXPECT_THAT(told_, ElementsAre("a", "b"));
}

}  // namespace
}  // namespace keel
