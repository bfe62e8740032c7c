// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/fair_share.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace keel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Duration = std::chrono::nanoseconds;

class FairShareTest : public testing::Test, protected FairShare::Host {
 protected:
  // Has a number of pieces of input, each of which takes some time, queues a block, and owes
  // output.
  class Member final : public ShareMember {
   public:
    Member(FairShareTest& test, Share& share, std::string name)
        : test_(test), share_(share), name_(std::move(name)) {}

    void receive(int pieces, Duration each) {
      pieces_ += pieces;
      each_ = each;
      test_.fairShare_.addInput(share_, *this);
    }
    bool takeInput() override {
      test_.served_.push_back(name_);
      test_.now_ += each_;
      test_.fairShare_.addOutput(share_, *this, Urgency::normal);
      return --pieces_ > 0 && isGreedy;
    }
    void suspendInput() override { test_.served_.push_back(name_ + " suspended"); }
    void onEndOfTurn() override {
      test_.served_.push_back(name_ + " written");
      test_.now_ += writeTime;
      if (pieces_ > 0) test_.fairShare_.addInput(share_, *this);
    }
    std::shared_ptr<void> holdAlive() override { return nullptr; }

    bool isGreedy = true;  // has all its pieces at once
    Duration writeTime{0};

   private:
    FairShareTest& test_;
    Share& share_;
    const std::string name_;
    int pieces_ = 0;
    Duration each_{0};
  };

  bool runQueuedBlocks(int rounds) override {
    rounds_.push_back(rounds);
    return false;
  }
  void pollInput() override {
    if (onPoll) onPoll();
  }
  bool mayReadMore() const override { return true; }

  std::vector<std::string> serve() {
    served_.clear();
    fairShare_.serve();
    return served_;
  }

  std::function<void()> onPoll;
  FairShare::Clock::time_point now_{};
  std::vector<int> rounds_;
  std::vector<std::string> served_;
  Share alice_, bob_;
  const std::function<FairShare::Clock::time_point()> clock_ = [this] { return now_; };
  FairShare fairShare_{clock_, *this};
};

TEST_F(FairShareTest, OneUserIsServedWhollyInOneTurn) {
  Member a(*this, alice_, "a"), b(*this, alice_, "b");
  a.receive(2, 1ms);
  b.receive(1, 1ms);
  EXPECT_THAT(serve(), ElementsAre("a", "a", "b", "a written", "b written"));
  EXPECT_TRUE(fairShare_.isIdle());
  EXPECT_FALSE(fairShare_.isContended());
}

TEST_F(FairShareTest, UsersWithInputAreServedByQuanta) {
  Member a(*this, alice_, "a"), b(*this, bob_, "b");
  a.receive(1000, 40us);
  b.receive(1, 10us);
  EXPECT_THAT(serve(), ElementsAre("a", "a", "a", "a suspended"));
  EXPECT_TRUE(fairShare_.isContended());
  EXPECT_THAT(serve(), ElementsAre("b", "b written"));
}

TEST_F(FairShareTest, WhoeverWasServedLeastIsNext) {
  Member a(*this, alice_, "a"), b(*this, bob_, "b");
  a.receive(1000, 40us);
  b.receive(1, 10us);
  serve();
  serve();
  for (int i = 0; i < 10; ++i) {
    serve();
    b.receive(1, 10us);
    EXPECT_THAT(serve(), ElementsAre("b", "b written"));
  }
}

TEST_F(FairShareTest, IdlenessEarnsNothing) {
  Member a(*this, alice_, "a"), b(*this, bob_, "b");
  a.receive(10'000, 50us);
  b.receive(1, 10us);
  for (int i = 0; i < 100; ++i) serve();
  b.receive(10'000, 50us);
  int ofBob = 0;
  for (int i = 0; i < 100; ++i) ofBob += serve().front().starts_with("b") ? 1 : 0;
  EXPECT_NEAR(ofBob, 50, 2);
}

TEST_F(FairShareTest, UsersWhoMetAreServedByQuantaForAWhile) {
  Member a(*this, alice_, "a"), b(*this, bob_, "b");
  a.receive(3, 10us);
  b.receive(1, 10us);
  serve();
  serve();
  a.receive(10, 40us);
  EXPECT_THAT(serve(), ElementsAre("a", "a", "a", "a suspended"));
  while (!fairShare_.isIdle()) serve();
  now_ += FairShare::kContentionMemory;
  a.receive(4, 40us);
  EXPECT_THAT(serve(), ElementsAre("a", "a", "a", "a", "a written"));
}

TEST_F(FairShareTest, AUserMeetsOneWhoWasServedAloneForLong) {
  Member a(*this, alice_, "a"), b(*this, bob_, "b");
  b.receive(1, 10us);
  serve();
  a.receive(10, 1ms);
  serve();
  EXPECT_FALSE(fairShare_.isContended());
  b.receive(1, 10us);
  serve();
  EXPECT_TRUE(fairShare_.isContended());
}

TEST_F(FairShareTest, AFanOutIsInterruptedByAnotherUsersInput) {
  Member b(*this, bob_, "b");
  b.receive(1, 10us);
  serve();
  std::deque<Member> followers;
  for (int i = 0; i < 1000; ++i) {
    followers.emplace_back(*this, alice_, "a").writeTime = 2us;
    fairShare_.addOutput(alice_, followers.back(), EndOfTurnHook::Urgency::normal);
  }
  onPoll = [&] { b.receive(1, 10us); };
  EXPECT_EQ(serve().size(), 64u);
  EXPECT_THAT(serve(), ElementsAre("b", "b written"));
  std::size_t written = 64;
  for (int i = 0; i < 100; ++i) written += serve().size();
  EXPECT_EQ(written, 1000u);
  EXPECT_TRUE(fairShare_.isIdle());
}

TEST_F(FairShareTest, PostsAreRunAtTheirUsersTurn) {
  Member a(*this, alice_, "a");
  a.receive(1000, 40us);
  BlockBatch posts;
  for (int i = 0; i < 20; ++i) {
    posts.add([this] {
      served_.emplace_back("post");
      now_ += 20us;
    });
  }
  fairShare_.addPosts(bob_, posts);
  for (int quantum = 0; quantum < 4; ++quantum) {
    serve();
    EXPECT_EQ(serve().size(), 5u);
  }
}

// Random users come and go. Nobody waits for longer than one quantum of each other user takes.
TEST_F(FairShareTest, NobodyWaitsLongerThanAQuantumOfEachOtherUser) {
  constexpr std::size_t kUsers = 12;
  constexpr Duration kPiece = 30us;
  // A piece may begin just before the quantum ends, and its output is written on top.
  constexpr Duration kLongestQuantum = FairShare::kQuantum + 3 * kPiece;
  std::mt19937 random(7);
  std::deque<Share> shares(kUsers);
  std::deque<Member> members;
  for (std::size_t i = 0; i < kUsers; ++i)
    members.emplace_back(*this, shares[i], std::to_string(i)).writeTime = 5us;
  std::vector<std::optional<FairShare::Clock::time_point>> waitingSince(kUsers);
  members[0].receive(1'000'000, kPiece);
  members[1].receive(1'000'000, kPiece);
  for (int step = 0; step < 20'000; ++step) {
    const std::size_t who = 2 + random() % (kUsers - 2);
    if (random() % 4 == 0 && !members[who].isListed()) {
      members[who].receive(1 + static_cast<int>(random() % 3), kPiece);
      waitingSince[who] = now_;
    }
    if (step < 10) continue;  // until they have met
    for (const std::string& each : serve()) {
      const auto served = static_cast<std::size_t>(std::stoi(each));
      if (!waitingSince[served]) continue;
      EXPECT_LE(now_ - *waitingSince[served], kUsers * kLongestQuantum);
      waitingSince[served].reset();
    }
  }
}

}  // namespace
}  // namespace keel
