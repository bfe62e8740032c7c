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
  Hook(std::string name, std::vector<std::string>& ran) : name_(std::move(name)), ran_(ran) {}
  void onEndOfTurn() override {
    ran_.push_back(name_);
    if (action) action();
  }
  using EndOfTurnHook::cancelEndOfTurn;

  std::function<void()> action;

 private:
  const std::string name_;
  std::vector<std::string>& ran_;
};

class EndOfTurnHooksTest : public testing::Test {
 protected:
  std::vector<std::string> ran_;
  EndOfTurnHooks hooks_;
  Hook a_{"a", ran_};
  Hook b_{"b", ran_};
  Hook c_{"c", ran_};
};

TEST_F(EndOfTurnHooksTest, RunsHooksInTheOrderOfRegistration) {
  hooks_.add(a_, normal);
  hooks_.add(b_, normal);
  hooks_.add(c_, normal);
  EXPECT_TRUE(hooks_.run());
  EXPECT_THAT(ran_, ElementsAre("a", "b", "c"));
}

TEST_F(EndOfTurnHooksTest, RunsUrgentHooksFirst) {
  hooks_.add(a_, normal);
  hooks_.add(b_, urgent);
  hooks_.add(c_, urgent);
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("b", "c", "a"));
}

TEST_F(EndOfTurnHooksTest, RunsAHookOnceHoweverOftenItIsAdded) {
  hooks_.add(a_, normal);
  hooks_.add(a_, normal);
  EXPECT_TRUE(hooks_.run());
  EXPECT_FALSE(hooks_.run());
  EXPECT_THAT(ran_, ElementsAre("a"));
}

TEST_F(EndOfTurnHooksTest, UrgentWinsOverNormalInEitherOrder) {
  hooks_.add(a_, normal);
  hooks_.add(b_, normal);
  hooks_.add(b_, urgent);
  hooks_.add(c_, urgent);
  hooks_.add(c_, normal);
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("b", "c", "a"));
}

TEST_F(EndOfTurnHooksTest, DoesNotRunACancelledHook) {
  hooks_.add(a_, normal);
  hooks_.add(b_, normal);
  hooks_.add(c_, normal);
  b_.cancelEndOfTurn();
  b_.cancelEndOfTurn();
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a", "c"));
  hooks_.add(b_, normal);
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a", "c", "b"));
}

TEST_F(EndOfTurnHooksTest, DoesNotRunADestroyedHook) {
  std::optional<Hook> gone;
  gone.emplace("gone", ran_);
  hooks_.add(a_, normal);
  hooks_.add(*gone, normal);
  gone.reset();
  EXPECT_TRUE(hooks_.run());
  EXPECT_THAT(ran_, ElementsAre("a"));
  gone.emplace("gone", ran_);
  hooks_.add(*gone, urgent);
  gone.reset();
  EXPECT_TRUE(hooks_.empty());
}

TEST_F(EndOfTurnHooksTest, AHookMayDestroyItselfAndAnotherPendingHook) {
  std::optional<Hook> self;
  self.emplace("self", ran_);
  std::optional<Hook> other;
  other.emplace("other", ran_);
  // The action is destroyed with its hook while it runs, so it is kept here.
  const auto destroyBoth = [&self, &other] {
    other.reset();
    self.reset();
  };
  self->action = std::ref(destroyBoth);
  hooks_.add(*self, normal);
  hooks_.add(*other, normal);
  hooks_.add(a_, normal);
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("self", "a"));
}

TEST_F(EndOfTurnHooksTest, AHookAddedWhileItRunsIsLeftForTheNextRun) {
  a_.action = [this] { hooks_.add(a_, normal); };
  hooks_.add(a_, normal);
  EXPECT_FALSE(hooks_.empty());
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a"));
  EXPECT_FALSE(hooks_.empty());
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a", "a"));
}

TEST_F(EndOfTurnHooksTest, AHookAddedByAnUrgentHookIsLeftForTheNextRun) {
  a_.action = [this] { hooks_.add(b_, normal); };
  hooks_.add(a_, urgent);
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a"));
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a", "b"));
}

TEST_F(EndOfTurnHooksTest, BecomingUrgentDoesNotDelayAHookOfTheCurrentRun) {
  a_.action = [this] { hooks_.add(b_, urgent); };
  hooks_.add(a_, urgent);
  hooks_.add(b_, normal);
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a", "b"));
  EXPECT_TRUE(hooks_.empty());
}

TEST_F(EndOfTurnHooksTest, AHookOfTheNextRunMayBecomeUrgent) {
  a_.action = [this] {
    hooks_.add(b_, normal);
    hooks_.add(a_, normal);
    hooks_.add(a_, urgent);
  };
  hooks_.add(a_, normal);
  hooks_.run();
  a_.action = nullptr;
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a", "a", "b"));
}

TEST_F(EndOfTurnHooksTest, HooksMayBeAddedElsewhereOnceTheirOwnerIsDestroyed) {
  {
    EndOfTurnHooks destroyed;
    destroyed.add(a_, normal);
    destroyed.add(b_, urgent);
  }
  hooks_.add(a_, normal);
  hooks_.add(b_, normal);
  hooks_.run();
  EXPECT_THAT(ran_, ElementsAre("a", "b"));
}

}  // namespace
}  // namespace keel
