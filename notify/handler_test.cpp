// SPDX-License-Identifier: Apache-2.0
#include <limits>

#include "notify/handler_fixture.h"

namespace keel {
namespace {

TEST_F(LoggedNotificationHandler, PublishReachesTheRegistryAndItsTable) {
  const std::string from = one.connection()->description();
  const auto id = publish(one, "n", number(1));
  EXPECT_FALSE(one.isAnswered(id));
  EXPECT_EQ(entry("n"), nullptr);
  EXPECT_THAT(
      lines(),
      ElementsAre(debugLine("NotificationHandler we have a publish request: n from " + from)));
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  ASSERT_NE(entry("n"), nullptr);
  EXPECT_EQ(entry("n")->data(), number(1));
  EXPECT_EQ(entry("n")->owner(), one.connection());
  EXPECT_EQ(one.handler()->publishedItems().at("n"), entry("n"));
  EXPECT_EQ(lines().size(), 1u);
}

TEST_F(LoggedNotificationHandler, PublishWithoutANameIsAnsweredBeforeAnythingIsQueued) {
  const auto id = publish(one, nullptr, number(1));
  EXPECT_EQ(publishError(one, id), kNilName);
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_THAT(lines(),
              ElementsAre(debugLine("NotificationHandler we have a publish request: (null) from " +
                                    one.connection()->description())));
}

TEST_F(NotificationHandler, PublishWithoutDataSucceeds) {
  const auto id = publish(one, "n", nullptr);
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_TRUE(entry("n")->data().isNull());
}

TEST_F(NotificationHandler, PublishingAnOwnNameAgainIsRefused) {
  mustPublish(one, "n", 1);
  const auto id = publish(one, "n", number(2));
  executor.runAll();
  EXPECT_EQ(publishError(one, id), kDuplicate);
  EXPECT_TRUE(publishError(one, id).userInfo().isNull());
  EXPECT_EQ(lines().back(),
            errorLine("NotificationHandler we don't allow duplicate publications n"));
  EXPECT_EQ(entry("n")->data(), number(1));
}

TEST_F(LoggedNotificationHandler, PublishingTheNameOfAnotherIsRefusedByTheRegistry) {
  mustPublish(one, "n", 1);
  const auto id = publish(other, "n", number(2));
  executor.runAll();
  const Error error = publishError(other, id);
  EXPECT_EQ(error.code(), 9);
  EXPECT_EQ(error.userInfo().value(),
            Value::map({{"NSLocalizedDescription", "the key n has already been published"}}));
  EXPECT_TRUE(other.handler()->publishedItems().empty());
  EXPECT_EQ(lines().size(), 1u);  // the request
}

TEST_F(NotificationHandler, TakingOverPutsThePlaceholderIntoTheTable) {
  mustSubscribe(other, "n");
  const auto placeholder = entry("n");
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_EQ(one.handler()->publishedItems().at("n"), placeholder);
  EXPECT_THAT(receivedBy(other), ElementsAre("update n {\"number\": 1}"));
  // Its updates reach the placeholder's subscribers.
  update(one, "n", number(2));
  executor.runAll();
  EXPECT_THAT(receivedBy(other),
              ElementsAre("update n {\"number\": 1}", "update n {\"number\": 2}"));
}

TEST_F(LoggedNotificationHandler, AnItemThatCannotBeMadeIsAFailure) {
  service->makeItem = [] { return nullptr; };
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  EXPECT_EQ(publishError(one, id), kRequestFailed);
  EXPECT_TRUE(publishError(one, id).userInfo().isNull());
  EXPECT_TRUE(one.handler()->publishedItems().empty());
  EXPECT_EQ(lines().size(), 1u);
}

TEST_F(LoggedNotificationHandler, SubscribeReachesTheRegistryAndItsTable) {
  const auto id = subscribe(one, "n");
  EXPECT_FALSE(one.isAnswered(id));
  EXPECT_THAT(lines(),
              ElementsAre(debugLine("NotificationHandler we have a subscription request: n")));
  executor.runAll();
  EXPECT_FALSE(subscribeError(one, id));
  const auto subscription = one.handler()->subscriptions().at("n");
  EXPECT_EQ(subscription->owner(), one.connection());
  EXPECT_TRUE(entry("n")->subscribers()->contains(subscription));
  EXPECT_THAT(lines(),
              ElementsAre(debugLine("NotificationHandler we have a subscription request: n"),
                          debugLine("NotificationHandler subscribing n with " +
                                    addressOf(subscription.get()))));
}

TEST_F(LoggedNotificationHandler, SubscribeWithoutANameIsAnsweredBeforeAnythingIsQueued) {
  const auto id = subscribe(one, nullptr);
  EXPECT_EQ(subscribeError(one, id), kNilName);
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_THAT(lines(),
              ElementsAre(debugLine("NotificationHandler we have a subscription request: (null)")));
}

TEST_F(NotificationHandler, SubscribingAgainIsRefusedAndTheFirstSubscriptionStays) {
  mustSubscribe(one, "n");
  const auto first = one.handler()->subscriptions().at("n");
  const auto id = subscribe(one, "n");
  executor.runAll();
  EXPECT_EQ(subscribeError(one, id), kDuplicate);
  EXPECT_TRUE(subscribeError(one, id).userInfo().isNull());
  EXPECT_EQ(one.handler()->subscriptions().at("n"), first);
  EXPECT_EQ(entry("n")->subscribers()->count(), 1u);
  EXPECT_EQ(lines().back(),
            standardLine("NotificationHandler: subscribeTo: already subscribed to n subscription " +
                         addressOf(first.get())));
}

TEST_F(NotificationHandler, ARefusalOfTheRegistryLeavesTheTable) {
  // A subscription of this connection that the handler does not know.
  const auto stray = service->newSubscriptionObjectForName("n", 0, 0, one.connection());
  service->subscribe(stray, nullptr);
  const auto id = subscribe(one, "n");
  executor.runAll();
  EXPECT_EQ(subscribeError(one, id), kDuplicate);
  EXPECT_TRUE(one.handler()->subscriptions().empty());
  EXPECT_EQ(lines().back(), errorLine("subscribe: already subscribed to n from this connection"));
}

TEST_F(LoggedNotificationHandler, ASubscriptionThatCannotBeMadeIsNoError) {
  service->makeSubscription = [] { return nullptr; };
  const auto id = subscribe(one, "n");
  executor.runAll();
  EXPECT_FALSE(subscribeError(one, id));
  EXPECT_TRUE(one.handler()->subscriptions().empty());
  EXPECT_TRUE(service->published().empty());
  EXPECT_EQ(lines().back(), debugLine("NotificationHandler subscribing n with 0x0"));
}

TEST_F(NotificationHandler, TwoConnectionsMayFollowOneName) {
  mustSubscribe(one, "n");
  mustSubscribe(other, "n");
  EXPECT_NE(one.handler()->subscriptions().at("n"), other.handler()->subscriptions().at("n"));
  EXPECT_EQ(entry("n")->subscribers()->count(), 2u);
}

TEST_F(NotificationHandler, FlagsAndValuesChangeNothing) {
  const auto published =
      publish(one, "n", number(1), std::numeric_limits<std::uint64_t>::max(), -1);
  const auto subscribed = subscribe(other, "n", std::numeric_limits<std::uint64_t>::max());
  executor.runAll();
  EXPECT_FALSE(publishError(one, published));
  EXPECT_FALSE(subscribeError(other, subscribed));
  EXPECT_THAT(receivedBy(other), ElementsAre("reply 1", "update n {\"number\": 1}"));
  EXPECT_EQ(other.received().back().flags, 0u);
}

TEST_F(NotificationHandler, TheReplyComesBeforeTheFirstDelivery) {
  mustPublish(one, "n", 1);
  const auto id = subscribe(other, "n");
  executor.runOne();
  EXPECT_THAT(receivedBy(other), ElementsAre("reply " + std::to_string(id)));
  executor.runAll();
  EXPECT_THAT(receivedBy(other),
              ElementsAre("reply " + std::to_string(id), "update n {\"number\": 1}"));
}

TEST_F(NotificationHandler, APlaceholderWithoutDataSendsOneNullItem) {
  mustSubscribe(one, "n");
  subscribe(other, "n");
  executor.runAll();
  EXPECT_THAT(receivedBy(other), ElementsAre("reply 1", "update n null"));
  EXPECT_TRUE(other.received().back().item.isNull());
  EXPECT_FALSE(other.received().back().error);
  EXPECT_THAT(receivedBy(one), IsEmpty());
}

TEST_F(NotificationHandler, RepliesKeepTheOrderOfRequestsExceptImmediateOnes) {
  const auto first = publish(one, "n", number(1));
  const auto second = subscribe(one, "n");
  const auto atOnce = publish(one, nullptr, number(1));
  const auto third = update(one, "n", number(2));
  executor.runAll();
  EXPECT_THAT(receivedBy(one),
              ElementsAre("reply " + std::to_string(atOnce), "reply " + std::to_string(first),
                          "reply " + std::to_string(second), "update n {\"number\": 2}",
                          "reply " + std::to_string(third), "update n {\"number\": 2}"));
}

TEST_F(LoggedNotificationHandler, UnsubscribeDetachesTheSubscription) {
  mustPublish(one, "n", 1);
  mustSubscribe(other, "n");
  const auto subscription = other.handler()->subscriptions().at("n");
  unsubscribe(other, "n");
  EXPECT_THAT(lines(), ElementsAre(debugLine("unsubscribeFrom n")));
  EXPECT_EQ(other.handler()->subscriptions().size(), 1u);
  executor.runAll();
  EXPECT_THAT(lines(), ElementsAre(debugLine("unsubscribeFrom n"),
                                   debugLine("unsubscribeFrom n subscription " +
                                             addressOf(subscription.get()))));
  EXPECT_TRUE(other.handler()->subscriptions().empty());
  EXPECT_TRUE(entry("n")->subscribers()->empty());
  update(one, "n", number(2));
  executor.runAll();
  EXPECT_THAT(receivedBy(other), IsEmpty());
  mustSubscribe(other, "n");
}

TEST_F(LoggedNotificationHandler, UnsubscribeFromAnUnknownNameIsOnlyLogged) {
  unsubscribe(one, "n");
  unsubscribe(one, nullptr);
  executor.runAll();
  EXPECT_THAT(lines(),
              ElementsAre(debugLine("unsubscribeFrom n"), debugLine("unsubscribeFrom (null)"),
                          errorLine("unsubscribeFrom n failed to find subscription"),
                          errorLine("unsubscribeFrom (null) failed to find subscription")));
  EXPECT_THAT(receivedBy(one), IsEmpty());
  EXPECT_TRUE(service->published().empty());
}

TEST_F(LoggedNotificationHandler, UnsubscribeIgnoresTheRegistrysAnswer) {
  mustSubscribe(one, "n");
  service->published().clear();
  unsubscribe(one, "n");
  executor.runAll();
  EXPECT_TRUE(one.handler()->subscriptions().empty());
  for (const LogLine& line : lines()) EXPECT_EQ(line.level, LogLevel::debug) << line;
}

TEST_F(LoggedNotificationHandler, UpdateReachesItemAndSubscribers) {
  mustPublish(one, "n", 1);
  mustSubscribe(other, "n");
  const std::string from = one.connection()->description();
  const auto id = update(one, "n", number(2));
  EXPECT_THAT(lines(), ElementsAre(debugLine("updatePublishedItem: updating n from " + from)));
  EXPECT_FALSE(one.isAnswered(id));
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_EQ(entry("n")->data(), number(2));
  EXPECT_THAT(receivedBy(other), ElementsAre("update n {\"number\": 2}"));
}

TEST_F(NotificationHandler, UpdateOfWhatThisConnectionDoesNotPublishIsNotFound) {
  mustPublish(one, "n", 1);
  for (const Name& name : {Name("n"), Name("unknown"), Name(nullptr)}) {
    log.take();
    const auto id = update(other, name, number(2));
    executor.runAll();
    EXPECT_EQ(publishError(other, id), kNotFound);
    EXPECT_EQ(lines().back(),
              errorLine("updatePublishedItem: item : " +
                        (name.isNull() ? "(null)" : std::string(name.view())) + " not found"));
  }
  EXPECT_EQ(entry("n")->data(), number(1));
}

TEST_F(NotificationHandler, UpdateDoesNotAskTheRegistry) {
  mustPublish(one, "n", 1);
  const auto item = entry("n");
  service->published().clear();
  const auto id = update(one, "n", number(2));
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_EQ(item->data(), number(2));
}

TEST_F(LoggedNotificationHandler, RemoveDeletesTheEntry) {
  mustPublish(one, "n", 1);
  const auto id = remove(one, "n");
  EXPECT_THAT(lines(), IsEmpty());
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_EQ(entry("n"), nullptr);
  EXPECT_TRUE(one.handler()->publishedItems().empty());
  EXPECT_THAT(lines(), ElementsAre(debugLine("removePublishedItemForName n ")));
  mustPublish(other, "n", 1);
}

TEST_F(NotificationHandler, RemoveOfAFollowedItemDeliversNothing) {
  mustPublish(one, "n", 1);
  mustSubscribe(other, "n");
  const auto id = remove(one, "n");
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_TRUE(one.handler()->publishedItems().empty());
  EXPECT_EQ(entry("n")->delegate(), nullptr);
  EXPECT_THAT(receivedBy(other), IsEmpty());
}

TEST_F(LoggedNotificationHandler, RemoveOfWhatThisConnectionDoesNotPublishIsNotFound) {
  mustPublish(one, "n", 1);
  for (const Name& name : {Name("n"), Name("unknown"), Name(nullptr)}) {
    const auto id = remove(other, name);
    executor.runAll();
    EXPECT_EQ(publishError(other, id), kNotFound);
  }
  EXPECT_NE(entry("n"), nullptr);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(NotificationHandler, ARemoveThatTheRegistryRefusesKeepsTheEntry) {
  mustPublish(one, "n", 1);
  entry("n")->setOwner(other.connection());
  const auto id = remove(one, "n");
  executor.runAll();
  EXPECT_EQ(publishError(one, id), kNotOwner);
  EXPECT_EQ(one.handler()->publishedItems().count("n"), 1u);
  service->published().clear();
  const auto again = remove(one, "n");
  executor.runAll();
  EXPECT_EQ(publishError(one, again), kNotFound);
  EXPECT_EQ(one.handler()->publishedItems().count("n"), 1u);
}

}  // namespace
}  // namespace keel
