// SPDX-License-Identifier: Apache-2.0
// Pipelined updates of one client form batches, except at the debug level. What clients receive
// must not depend on that, so every test runs at both levels.
#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "notify/handler_fixture.h"
#include "protocols/delivery.h"
#include "runtime/wire/limits.h"

namespace keel {
namespace {

class CoalescedUpdates : public NotificationHandler,
                         public ::testing::WithParamInterface<LogLevel> {
 protected:
  CoalescedUpdates() : NotificationHandler(GetParam()) {}
  void SetUp() override {
    mustPublish(one, "n", 0);
    mustSubscribe(other, "n");
    mustSubscribe(third, "n");
    clearAllRecords();
  }
  void clearAllRecords() {
    clearRecords();
    third.take();
  }
  static bool formsBatches() { return GetParam() != LogLevel::debug; }
  int errorCount(std::string_view beginning) const {
    return static_cast<int>(std::ranges::count_if(lines(), [beginning](const LogLine& line) {
      return line.level == LogLevel::error && line.text.starts_with(beginning);
    }));
  }
  // What a follower receives for these values.
  static std::vector<std::string> updates(std::vector<int> values) {
    std::vector<std::string> all;
    for (const int value : values) all.push_back(fmt::format("update n {{\"number\": {}}}", value));
    return all;
  }
  void updateEach(std::vector<int> values) {
    for (const int value : values) update(one, "n", number(value));
  }
  static Dictionary large(int value, std::size_t sizeBytes) {
    return Dictionary(Value::map({{"number", value}, {"filling", std::string(sizeBytes, 'x')}}));
  }
  static std::vector<std::int64_t> numbersOf(const NotifyClient& client) {
    std::vector<std::int64_t> all;
    for (const Received& each : client.received())
      all.push_back(*each.item.value().find("number")->as<std::int64_t>());
    return all;
  }

  NotifyClient third{executor, FakeClient::identity(13, 5)};
};

TEST_P(CoalescedUpdates, ReachEverySubscriberAndAreAnswered) {
  const int sentBefore = other.sendCount();
  updateEach({1, 2, 2, 3});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2, 2, 3}));
  EXPECT_EQ(receivedBy(third), updates({1, 2, 2, 3}));
  EXPECT_THAT(receivedBy(one), ElementsAre("reply 2", "reply 3", "reply 4", "reply 5"));
  EXPECT_EQ(entry("n")->data(), number(3));
  for (const NotifyClient* follower : {&other, &third})
    EXPECT_EQ(follower->sendCount(), sentBefore + (formsBatches() ? 1 : 4));
}

TEST_P(CoalescedUpdates, EqualDataDateItemAndSubscriptionsAnew) {
  const auto dates = [this] {
    return std::vector{entry("n")->lastUpdated(),
                       other.handler()->subscriptions().at("n")->lastUpdated(),
                       third.handler()->subscriptions().at("n")->lastUpdated()};
  };
  updateEach({1});
  executor.runAll();
  // A batch of one, and a batch of two.
  for (const std::vector<int>& equal : {std::vector{1}, std::vector{1, 1}}) {
    const auto before = dates();
    waitForClockAfter(before.back().value());
    updateEach(equal);
    executor.runAll();
    for (std::size_t i = 0; i < before.size(); ++i) EXPECT_GT(dates()[i], before[i]) << i;
  }
}

TEST_P(CoalescedUpdates, AnUnsubscribeBetweenThemKeepsItsOrder) {
  updateEach({1, 2});
  unsubscribe(other, "n");
  updateEach({3, 4});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
  EXPECT_EQ(receivedBy(third), updates({1, 2, 3, 4}));
}

TEST_P(CoalescedUpdates, ARemovalBetweenThemKeepsItsOrder) {
  updateEach({1, 2});
  const auto removal = remove(one, "n");
  const auto late = update(one, "n", number(3));
  const auto later = update(one, "n", number(4));
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
  EXPECT_FALSE(std::get<0>(*one.resultsOf<&NotifyProxy::removePublishedItemForName>(removal)));
  for (const auto id : {late, later}) {
    EXPECT_EQ(std::get<0>(*one.resultsOf<&NotifyProxy::updatePublishedItem>(id)), kNotFound);
  }
}

TEST_P(CoalescedUpdates, OfSeveralClientsAndNamesKeepTheirOrder) {
  mustPublish(one, "m", 0);
  mustPublish(other, "o", 0);
  for (const Name& name : {Name("m"), Name("o")}) mustSubscribe(third, name);
  clearAllRecords();
  update(one, "n", number(1));
  update(one, "m", number(2));
  update(other, "o", number(3));
  update(one, "n", number(4));
  update(one, "n", number(5));
  update(other, "o", number(6));
  executor.runAll();
  EXPECT_THAT(receivedBy(third),
              ElementsAre("update n {\"number\": 1}", "update m {\"number\": 2}",
                          "update o {\"number\": 3}", "update n {\"number\": 4}",
                          "update n {\"number\": 5}", "update o {\"number\": 6}"));
}

TEST_P(CoalescedUpdates, APublisherThatFollowsItselfReceivesEachBeforeItsReply) {
  mustSubscribe(one, "n");
  clearAllRecords();
  updateEach({1, 2});
  executor.runAll();
  EXPECT_THAT(receivedBy(one), ElementsAre("update n {\"number\": 1}", "reply 3",
                                           "update n {\"number\": 2}", "reply 4"));
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
}

TEST_P(CoalescedUpdates, LargeDataKeepTheirOrder) {
  constexpr std::size_t kLarge = xpc::limits::kSharedPieceBytes;
  update(one, "n", number(1));
  update(one, "n", number(2));
  update(one, "n", large(3, kLarge));
  update(one, "n", large(4, kLarge));
  update(one, "n", number(5));
  update(one, "n", number(6));
  executor.runAll();
  EXPECT_THAT(numbersOf(other), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(numbersOf(third), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_P(CoalescedUpdates, MoreThanABatchHoldsFormSeveral) {
  const int sentBefore = other.sendCount();
  std::vector<std::int64_t> expected;
  for (int i = 0; i < 100; ++i) {
    update(one, "n", large(i, 1000));
    expected.push_back(i);
  }
  executor.runAll();
  EXPECT_EQ(numbersOf(other), expected);
  EXPECT_EQ(numbersOf(third), expected);
  // A batch holds 31 of these.
  EXPECT_EQ(other.sendCount(), sentBefore + (formsBatches() ? 4 : 100));
}

TEST_P(CoalescedUpdates, DataMayBeNull) {
  update(one, "n", nullptr);
  update(one, "n", number(1));
  update(one, "n", nullptr);
  executor.runAll();
  EXPECT_THAT(receivedBy(other),
              ElementsAre("update n null", "update n {\"number\": 1}", "update n null"));
  EXPECT_TRUE(entry("n")->data().isNull());
}

TEST_P(CoalescedUpdates, ARenamedSubscriptionReceivesUnderItsOwnName) {
  third.handler()->subscriptions().at("n")->setName("its own");
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
  EXPECT_THAT(receivedBy(third),
              ElementsAre("update its own {\"number\": 1}", "update its own {\"number\": 2}"));
}

TEST_P(CoalescedUpdates, ASubscriberIsCalledByItsOwnMethodIndexes) {
  NotifyClient old(executor, FakeClient::identity(14, 6),
                   std::vector<std::string>{"getClientInfoViaHandler:",
                                            "updateSubscriptionFor:withItem:flags:error:"});
  mustSubscribe(old, "n");
  clearAllRecords();
  old.take();
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
  EXPECT_EQ(receivedBy(old), updates({1, 2}));
  EXPECT_EQ(receivedBy(third), updates({1, 2}));
}

TEST_P(CoalescedUpdates, EachFailureToSendIsLogged) {
  NotifyClient deaf(executor, FakeClient::identity(14, 6), std::vector<std::string>());
  mustSubscribe(deaf, "n");
  clearAllRecords();
  updateEach({1, 2, 3});
  executor.runAll();
  EXPECT_EQ(errorCount("behavior updateWithData: (n) connection returned an error "), 3);
  EXPECT_EQ(receivedBy(third), updates({1, 2, 3}));
}

TEST_P(CoalescedUpdates, AGoneClientIsLoggedForEach) {
  const auto subscription = KLNSubscriptionObject::initWithName("n", nullptr);
  std::make_shared<SubscriberBehavior>()->addTarget(subscription);
  entry("n")->addSubscriber(subscription);
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(errorCount("behavior updateWithData: connection is nil"), 2);
  EXPECT_FALSE(subscription->lastUpdated());
  EXPECT_EQ(receivedBy(third), updates({1, 2}));
}

TEST_P(CoalescedUpdates, AGoneSubscriptionIsLoggedForEach) {
  const auto behavior = std::make_shared<SubscriberBehavior>();
  const std::vector batch{number(1), number(2)};
  const Name name("n");
  Delivery delivery(name, batch);
  behavior->deliver(delivery);
  EXPECT_EQ(errorCount("behavior updateWithData: connection is nil"), 2);
}

TEST_P(CoalescedUpdates, ASubscriptionWithoutABehaviorServesItself) {
  NotifyClient fourth(executor, FakeClient::identity(14, 6));
  const auto subscription = KLNSubscriptionObject::initWithName("n", fourth.connection());
  entry("n")->addSubscriber(subscription);
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(receivedBy(fourth), updates({1, 2}));
  EXPECT_TRUE(subscription->lastUpdated());
  fourth.die();
  updateEach({3, 4});
  executor.runAll();
  EXPECT_EQ(errorCount("updateWithData: connection is nil"), 2);
}

TEST_P(CoalescedUpdates, OfAnotherClientThanTheOwnerAreRefused) {
  update(one, "n", number(1));
  const auto foreign = update(other, "n", number(2));
  update(one, "n", number(3));
  executor.runAll();
  EXPECT_EQ(receivedBy(third), updates({1, 3}));
  EXPECT_EQ(std::get<0>(*other.resultsOf<&NotifyProxy::updatePublishedItem>(foreign)), kNotFound);
  EXPECT_EQ(errorCount("updatePublishedItem: item : n not found"), 1);
}

TEST_P(CoalescedUpdates, TheNullNameIsNotTheEmptyName) {
  mustPublish(one, "", 0);
  mustSubscribe(third, "");
  clearAllRecords();
  update(one, "", number(1));
  const auto nameless = update(one, nullptr, number(2));
  update(one, "", number(3));
  executor.runAll();
  EXPECT_THAT(receivedBy(third), ElementsAre("update  {\"number\": 1}", "update  {\"number\": 3}"));
  EXPECT_EQ(std::get<0>(*one.resultsOf<&NotifyProxy::updatePublishedItem>(nameless)), kNotFound);
}

TEST_P(CoalescedUpdates, ConsecutiveBatchesAreNotMixedUp) {
  // Equal in length and in all data but the last.
  update(one, "n", nullptr);
  update(one, "n", number(1));
  executor.runAll();
  update(one, "n", nullptr);
  update(one, "n", number(2));
  subscribe(one, "something else");
  update(one, "n", nullptr);
  update(one, "n", number(3));
  executor.runAll();
  const std::vector<std::string> expected = {"update n null", "update n {\"number\": 1}",
                                             "update n null", "update n {\"number\": 2}",
                                             "update n null", "update n {\"number\": 3}"};
  EXPECT_EQ(receivedBy(other), expected);
  EXPECT_EQ(receivedBy(third), expected);
}

TEST_P(CoalescedUpdates, ALongNameLeavesRoomForOneUpdatePerBatch) {
  const std::string name(20'000, 'n');
  mustPublish(one, Name(name), 0);
  mustSubscribe(third, Name(name));
  clearAllRecords();
  const int sentBefore = third.sendCount();
  for (int i = 0; i < 6; ++i) update(one, Name(name), number(i));
  executor.runAll();
  EXPECT_THAT(numbersOf(third), ElementsAre(0, 1, 2, 3, 4, 5));
  // Two would exceed a batch's bound.
  EXPECT_EQ(third.sendCount(), sentBefore + 6);
}

TEST_P(CoalescedUpdates, ABatchHoldsUpToItsBoundAndNotAByteMore) {
  // One update counts its data, its name and the envelope.
  const std::size_t overhead =
      large(1, 1000).buffer()->size() - 1000 + Name("n").view().size() + 32;
  const std::size_t filling = xpc::limits::kBatchBytes / 4 - overhead;
  for (const std::size_t more : {0u, 1u}) {
    const int sentBefore = third.sendCount();
    for (int i = 1; i <= 4; ++i) update(one, "n", large(i, filling + more));
    executor.runAll();
    EXPECT_THAT(numbersOf(third), ElementsAre(1, 2, 3, 4));
    const int batchCount = more == 0 ? 1 : 2;
    EXPECT_EQ(third.sendCount(), sentBefore + (formsBatches() ? batchCount : 4));
    clearAllRecords();
  }
}

TEST_P(CoalescedUpdates, OfAClientThatDiesMeanwhileAreStillDelivered) {
  updateEach({1, 2});
  one.die();
  executor.runAll();
  EXPECT_EQ(receivedBy(third), updates({1, 2}));
}

TEST_P(CoalescedUpdates, EachHasItsLinesAtTheDebugLevelOnly) {
  updateEach({1, 2});
  log.take();
  executor.runAll();
  std::vector<LogLine> expected;
  if (GetParam() == LogLevel::debug) {
    for (int i = 0; i < 4; ++i) {
      expected.push_back(debugLine("updateWithData: n"));
      expected.push_back(debugLine("updateWithData: n behavior"));
      expected.push_back(debugLine("updateWithData: n behavior notification sent"));
    }
  }
  EXPECT_EQ(lines(), expected);
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
}

TEST_P(CoalescedUpdates, APlaceholderStoresTheLast) {
  const auto item = entry("n");
  item->setDelegate(nullptr);
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(item->data(), number(2));
  EXPECT_THAT(receivedBy(other), IsEmpty());
  EXPECT_THAT(receivedBy(one), ElementsAre("reply 2", "reply 3"));
}

TEST_P(CoalescedUpdates, OfAnAbandonedQueueFail) {
  updateEach({1, 2});
  service->inputQ()->abandon();
  EXPECT_THAT(receivedBy(one), ElementsAre("failure 2", "failure 3"));
  updateEach({3});
  EXPECT_THAT(receivedBy(one), ElementsAre("failure 2", "failure 3", "failure 4"));
}

INSTANTIATE_TEST_SUITE_P(AtEachLevel, CoalescedUpdates,
                         ::testing::Values(LogLevel::standard, LogLevel::debug),
                         [](const auto& each) {
                           return each.param == LogLevel::debug ? "debug" : "standard";
                         });

}  // namespace
}  // namespace keel
