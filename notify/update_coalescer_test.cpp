// SPDX-License-Identifier: Apache-2.0
// Updates that one client sends in a row are carried out together. Nobody must be able to tell,
// except by the time it takes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "notify/handler_fixture.h"
#include "protocols/delivery.h"
#include "runtime/wire/limits.h"

namespace keel {
namespace {

class CoalescedUpdates : public NotificationHandler {
 protected:
  void SetUp() override {
    mustPublish(one, "n", 0);
    mustSubscribe(other, "n");
    mustSubscribe(third, "n");
    forgetAll();
  }
  void forgetAll() {
    forget();
    third.take();
    errors.take();
  }
  int errorCount(std::string_view beginning) const {
    return static_cast<int>(
        std::ranges::count_if(errors.linesOf("notification"), [beginning](const LogLine& line) {
          return line.level == LogLevel::error && line.text.starts_with(beginning);
        }));
  }
  // What these updates cause.
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

  // At the debug level each update is carried out alone, so that the log tells of them in order.
  LogRecorder errors{LogLevel::error};
  NotifyClient third{executor, FakeClient::identity(13, 5)};
};

TEST_F(CoalescedUpdates, EachReachesEverySubscriberAndIsAnswered) {
  const int sentBefore = other.sendCount();
  updateEach({1, 2, 2, 3});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2, 2, 3}));
  EXPECT_EQ(receivedBy(third), updates({1, 2, 2, 3}));
  EXPECT_THAT(receivedBy(one), ElementsAre("reply 2", "reply 3", "reply 4", "reply 5"));
  EXPECT_EQ(entry("n")->data(), number(3));
  // In one go.
  EXPECT_EQ(other.sendCount(), sentBefore + 1);
  EXPECT_EQ(third.sendCount(), 1 + sentBefore);
}

TEST_F(CoalescedUpdates, EqualOnesDateTheItemAndItsSubscriptionsAnewEachTime) {
  const auto dates = [this] {
    return std::vector{entry("n")->lastUpdated(),
                       other.handler()->subscriptions().at("n")->lastUpdated(),
                       third.handler()->subscriptions().at("n")->lastUpdated()};
  };
  updateEach({1});
  executor.runAll();
  // One alone, and several that are carried out together.
  for (const std::vector<int>& equal : {std::vector{1}, std::vector{1, 1}}) {
    const auto before = dates();
    letTheClockPass(before.back().value());
    updateEach(equal);
    executor.runAll();
    for (std::size_t i = 0; i < before.size(); ++i) EXPECT_GT(dates()[i], before[i]) << i;
  }
}

TEST_F(CoalescedUpdates, AnotherRequestInBetweenIsCarriedOutInItsPlace) {
  updateEach({1, 2});
  unsubscribe(other, "n");
  updateEach({3, 4});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
  EXPECT_EQ(receivedBy(third), updates({1, 2, 3, 4}));
}

TEST_F(CoalescedUpdates, ARemovalInBetweenIsCarriedOutInItsPlace) {
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

TEST_F(CoalescedUpdates, OfSeveralClientsAndNamesAreCarriedOutInTheirOrder) {
  mustPublish(one, "m", 0);
  mustPublish(other, "o", 0);
  for (const Name& name : {Name("m"), Name("o")}) mustSubscribe(third, name);
  forgetAll();
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

TEST_F(CoalescedUpdates, WhoFollowsWhatHePublishesHearsOfEachBeforeItsAnswer) {
  mustSubscribe(one, "n");
  forgetAll();
  updateEach({1, 2});
  executor.runAll();
  EXPECT_THAT(receivedBy(one), ElementsAre("update n {\"number\": 1}", "reply 3",
                                           "update n {\"number\": 2}", "reply 4"));
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
}

TEST_F(CoalescedUpdates, LargeOnesStandInTheirPlace) {
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

TEST_F(CoalescedUpdates, ManyGoInSeveralPieces) {
  const int sentBefore = other.sendCount();
  std::vector<std::int64_t> expected;
  for (int i = 0; i < 100; ++i) {
    update(one, "n", large(i, 1000));
    expected.push_back(i);
  }
  executor.runAll();
  EXPECT_EQ(numbersOf(other), expected);
  EXPECT_EQ(numbersOf(third), expected);
  EXPECT_GT(other.sendCount(), sentBefore + 1);
  EXPECT_LT(other.sendCount(), sentBefore + 100);
}

TEST_F(CoalescedUpdates, DataMayBeNull) {
  update(one, "n", nullptr);
  update(one, "n", number(1));
  update(one, "n", nullptr);
  executor.runAll();
  EXPECT_THAT(receivedBy(other),
              ElementsAre("update n null", "update n {\"number\": 1}", "update n null"));
  EXPECT_TRUE(entry("n")->data().isNull());
}

TEST_F(CoalescedUpdates, ASubscriberOfAnotherNameIsToldUnderThatName) {
  // Names of subscriptions can be set.
  third.handler()->subscriptions().at("n")->setName("its own");
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
  EXPECT_THAT(receivedBy(third),
              ElementsAre("update its own {\"number\": 1}", "update its own {\"number\": 2}"));
}

TEST_F(CoalescedUpdates, ASubscriberWithItsOwnNumbersIsCalledByThem) {
  NotifyClient old(executor, FakeClient::identity(14, 6),
                   std::vector<std::string>{"getClientInfoViaHandler:",
                                            "updateSubscriptionFor:withItem:flags:error:"});
  mustSubscribe(old, "n");
  forgetAll();
  old.take();
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(receivedBy(other), updates({1, 2}));
  EXPECT_EQ(receivedBy(old), updates({1, 2}));
  EXPECT_EQ(receivedBy(third), updates({1, 2}));
}

TEST_F(CoalescedUpdates, EachFailureToSendIsReported) {
  NotifyClient deaf(executor, FakeClient::identity(14, 6), std::vector<std::string>());
  mustSubscribe(deaf, "n");
  forgetAll();
  updateEach({1, 2, 3});
  executor.runAll();
  EXPECT_EQ(errorCount("behavior updateWithData: (n) connection returned an error "), 3);
  EXPECT_EQ(receivedBy(third), updates({1, 2, 3}));
}

TEST_F(CoalescedUpdates, AClientThatIsGoneIsLoggedForEach) {
  const auto subscription = KLNSubscriptionObject::initWithName("n", nullptr);
  std::make_shared<SubscriberBehavior>()->addTarget(subscription);
  entry("n")->addSubscriber(subscription);
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(errorCount("behavior updateWithData: connection is nil"), 2);
  EXPECT_FALSE(subscription->lastUpdated());
  EXPECT_EQ(receivedBy(third), updates({1, 2}));
}

TEST_F(CoalescedUpdates, ABehaviorWhoseSubscriptionIsGoneLogsEach) {
  const auto behavior = std::make_shared<SubscriberBehavior>();
  const std::vector batch{number(1), number(2)};
  const Name name("n");
  Delivery delivery(name, batch);
  behavior->deliver(delivery);
  EXPECT_EQ(errorCount("behavior updateWithData: connection is nil"), 2);
}

TEST_F(CoalescedUpdates, ASubscriptionWithoutABehaviorServesItself) {
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

TEST_F(CoalescedUpdates, ThoseOfAnotherClientBehindTheOwnersAreRefused) {
  update(one, "n", number(1));
  const auto foreign = update(other, "n", number(2));
  update(one, "n", number(3));
  executor.runAll();
  EXPECT_EQ(receivedBy(third), updates({1, 3}));
  EXPECT_EQ(std::get<0>(*other.resultsOf<&NotifyProxy::updatePublishedItem>(foreign)), kNotFound);
  EXPECT_EQ(errorCount("updatePublishedItem: item : n not found"), 1);
}

TEST_F(CoalescedUpdates, OfANullNameAreNotThoseOfTheEmptyOne) {
  mustPublish(one, "", 0);
  mustSubscribe(third, "");
  forgetAll();
  update(one, "", number(1));
  const auto nameless = update(one, nullptr, number(2));
  update(one, "", number(3));
  executor.runAll();
  EXPECT_THAT(receivedBy(third), ElementsAre("update  {\"number\": 1}", "update  {\"number\": 3}"));
  EXPECT_EQ(std::get<0>(*one.resultsOf<&NotifyProxy::updatePublishedItem>(nameless)), kNotFound);
}

TEST_F(CoalescedUpdates, OneAfterTheOtherAreNotMixedUp) {
  // Equal in their first data, in their number, and in all but the last.
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

TEST_F(CoalescedUpdates, ALongNameGoesInSeveralPieces) {
  const std::string name(20'000, 'n');
  mustPublish(one, Name(name), 0);
  mustSubscribe(third, Name(name));
  forgetAll();
  const int sentBefore = third.sendCount();
  for (int i = 0; i < 6; ++i) update(one, Name(name), number(i));
  executor.runAll();
  EXPECT_THAT(numbersOf(third), ElementsAre(0, 1, 2, 3, 4, 5));
  // Two would be longer together than what is sent together.
  EXPECT_EQ(third.sendCount(), sentBefore + 6);
}

TEST_F(CoalescedUpdates, ABatchHoldsAsManyAsItsBoundAndNotOneMore) {
  // Of one update: the data, the name, and the envelope.
  const std::size_t around = large(1, 1000).buffer()->size() - 1000 + Name("n").view().size() + 32;
  const std::size_t filling = xpc::limits::kBatchBytes / 4 - around;
  for (const std::size_t more : {0u, 1u}) {
    const int sentBefore = third.sendCount();
    for (int i = 1; i <= 4; ++i) update(one, "n", large(i, filling + more));
    executor.runAll();
    EXPECT_THAT(numbersOf(third), ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(third.sendCount(), sentBefore + (more == 0 ? 1 : 2));
    forgetAll();
  }
}

TEST_F(CoalescedUpdates, WhoDiesBeforeTheyAreCarriedOutHasPublishedThem) {
  updateEach({1, 2});
  one.die();
  executor.runAll();
  EXPECT_EQ(receivedBy(third), updates({1, 2}));
}

TEST_F(CoalescedUpdates, AtTheDebugLevelTheLogTellsOfEachInOrder) {
  LogRecorder everything;
  updateEach({1, 2});
  everything.take();
  executor.runAll();
  std::vector<std::string> texts;
  for (const LogLine& line : everything.linesOf("notification")) texts.push_back(line.text);
  const std::vector<std::string> ofOne = {"updateWithData: n", "updateWithData: n behavior",
                                          "updateWithData: n behavior notification sent"};
  std::vector<std::string> expected;
  for (int i = 0; i < 4; ++i) expected.insert(expected.end(), ofOne.begin(), ofOne.end());
  EXPECT_EQ(texts, expected);
  EXPECT_THAT(receivedBy(other),
              ElementsAre("update n {\"number\": 1}", "update n {\"number\": 2}"));
}

TEST_F(CoalescedUpdates, APlaceholderKeepsTheLast) {
  const auto item = entry("n");
  item->setDelegate(nullptr);
  updateEach({1, 2});
  executor.runAll();
  EXPECT_EQ(item->data(), number(2));
  EXPECT_THAT(receivedBy(other), IsEmpty());
  EXPECT_THAT(receivedBy(one), ElementsAre("reply 2", "reply 3"));
}

TEST_F(CoalescedUpdates, ThatAreNeverCarriedOutAreDroppedUnanswered) {
  updateEach({1, 2});
  service->inputQ()->abandon();
  EXPECT_THAT(receivedBy(one), ElementsAre("failure 2", "failure 3"));
  updateEach({3});
  EXPECT_THAT(receivedBy(one), ElementsAre("failure 2", "failure 3", "failure 4"));
}

}  // namespace
}  // namespace keel
