// SPDX-License-Identifier: Apache-2.0
#include "notify/service_fixture.h"

namespace keel {
namespace {

TEST_F(NotificationService, ANewSubscriptionHasABehaviorAndFollowsNothing) {
  const auto subscription =
      service->newSubscriptionObjectForName("n", kAnyFlags, kAnyValue, one.connection());
  ASSERT_NE(subscription, nullptr);
  EXPECT_EQ(subscription->name(), Name("n"));
  EXPECT_EQ(subscription->owner(), one.connection());
  EXPECT_EQ(subscription->target(), nullptr);
  const auto behavior = std::dynamic_pointer_cast<SubscriberBehavior>(subscription->delegate());
  ASSERT_NE(behavior, nullptr);
  EXPECT_EQ(behavior->subscriber(), subscription);
  EXPECT_TRUE(service->published().empty());
}

TEST_F(NotificationService, ANewSubscriptionWithoutANameIsNone) {
  EXPECT_EQ(service->newSubscriptionObjectForName(nullptr, 0, 0, one.connection()), nullptr);
  EXPECT_THAT(lines(),
              ElementsAre(errorLine("KLNSubscriptionObject: subscription name may not be nil")));
}

TEST_F(NotificationService, WithoutABehaviorANewSubscriptionServesItself) {
  service->makeSubscriberBehavior = [](std::uint64_t, std::int64_t) { return nullptr; };
  const auto subscription = service->newSubscriptionObjectForName("n", 0, 0, one.connection());
  ASSERT_NE(subscription, nullptr);
  EXPECT_EQ(subscription->delegate(), nullptr);
}

TEST_F(NotificationService, SubscribeOfNothingFails) {
  Error error;
  EXPECT_FALSE(service->subscribe(nullptr, &error));
  EXPECT_EQ(error, Error(KLNErrorDomain, 13));
  EXPECT_FALSE(service->subscribe(nullptr, nullptr));
}

TEST_F(NotificationService, SubscribeToAnUnpublishedNameMakesAPlaceholderAndDeliversNothing) {
  RecordingSubscription subscriber("n", one.connection());
  Error error;
  EXPECT_TRUE(service->subscribe(subscriber.subscription, &error));
  EXPECT_FALSE(error);
  const auto placeholder = entry("n");
  ASSERT_NE(placeholder, nullptr);
  EXPECT_EQ(placeholder->name(), Name("n"));
  EXPECT_EQ(placeholder->delegate(), nullptr);
  EXPECT_EQ(placeholder->owner(), nullptr);
  EXPECT_TRUE(placeholder->subscribers()->contains(subscriber.subscription));
  EXPECT_EQ(subscriber.subscription->target(), placeholder);
  EXPECT_EQ(executor.scheduledCount(), 0u);
  executor.runAll();
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
  // Receives the data as soon as it is published.
  mustPublish("n", 1, other);
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(1)));
}

TEST_F(NotificationService, SubscribeToAPublishedNameQueuesTheData) {
  const auto item = mustPublish("n", 1, one);
  RecordingSubscription subscriber("n", other.connection());
  EXPECT_TRUE(service->subscribe(subscriber.subscription, nullptr));
  EXPECT_EQ(subscriber.subscription->target(), item);
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
  executor.runAll();
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(1)));
}

TEST_F(NotificationService, TheFirstDeliveryHasTheDataOfItsTime) {
  const auto item = mustPublish("n", 1, one);
  RecordingSubscription subscriber("n", other.connection());
  service->subscribe(subscriber.subscription, nullptr);
  item->updateWithData(number(2));
  executor.runAll();
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(2), number(2)));
}

TEST_F(NotificationService, TheFirstDeliveryOfAPlaceholderWithoutDataIsNull) {
  RecordingSubscription first("n", one.connection());
  RecordingSubscription second("n", other.connection());
  service->subscribe(first.subscription, nullptr);
  service->subscribe(second.subscription, nullptr);
  executor.runAll();
  EXPECT_THAT(first.behavior->data, IsEmpty());
  EXPECT_THAT(second.behavior->data, ElementsAre(Dictionary()));
}

TEST_F(NotificationService, TheQueuedFirstDeliveryHoldsSubscriptionAndItem) {
  std::weak_ptr<KLNPublishedObject> item = mustPublish("n", 1, one);
  std::weak_ptr<KLNSubscriptionObject> subscription;
  const auto behavior = std::make_shared<RecordingSubscriberBehavior>();
  {
    RecordingSubscription subscriber("n", other.connection());
    subscriber.subscription->setDelegate(behavior);
    service->subscribe(subscriber.subscription, nullptr);
    subscription = subscriber.subscription;
    item.lock()->removeSubscriber(subscriber.subscription);
  }
  service->removePublishedItemForName("n", one.connection(), nullptr);
  EXPECT_FALSE(item.expired());
  executor.runAll();
  EXPECT_THAT(behavior->data, ElementsAre(number(1)));
  EXPECT_TRUE(item.expired());
  EXPECT_TRUE(subscription.expired());
}

TEST_F(NotificationService, SubscribingTwiceFromOneConnectionIsRefused) {
  RecordingSubscription first("n", one.connection());
  RecordingSubscription second("n", one.connection());
  service->subscribe(first.subscription, nullptr);
  Error error;
  EXPECT_FALSE(service->subscribe(second.subscription, &error));
  EXPECT_EQ(error, Error(KLNErrorDomain, 9));
  EXPECT_TRUE(error.userInfo().isNull());
  EXPECT_THAT(lines(),
              ElementsAre(errorLine("subscribe: already subscribed to n from this connection")));
  EXPECT_FALSE(service->subscribe(second.subscription, nullptr));
  EXPECT_EQ(entry("n")->subscribers()->count(), 1u);
  EXPECT_EQ(second.subscription->target(), nullptr);
  executor.runAll();
  EXPECT_THAT(second.behavior->data, IsEmpty());
}

TEST_F(NotificationService, SubscribingFromTwoConnectionsSucceeds) {
  RecordingSubscription first("n", one.connection());
  RecordingSubscription second("n", other.connection());
  EXPECT_TRUE(service->subscribe(first.subscription, nullptr));
  EXPECT_TRUE(service->subscribe(second.subscription, nullptr));
  EXPECT_EQ(entry("n")->subscribers()->count(), 2u);
}

TEST_F(NotificationService, AllIsAnOrdinaryNameHere) {
  mustPublish("n", 1, one);
  RecordingSubscription subscriber("_all", other.connection());
  service->subscribe(subscriber.subscription, nullptr);
  executor.runAll();
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
  mustPublish("_all", 2, one);
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(2)));
}

TEST_F(NotificationService, SubscribeToAttachesDuplicates) {
  const auto item = mustPublish("n", 1, one);
  other.connection()->setRemoteObjectInterface(
      xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
  other.connection()->resume();
  Error error;
  EXPECT_TRUE(service->subscribeTo("n", other.connection(), kAnyFlags, &error));
  EXPECT_TRUE(service->subscribeTo("n", other.connection(), 0, nullptr));
  EXPECT_FALSE(error);
  EXPECT_EQ(item->subscribers()->count(), 2u);
  EXPECT_EQ(item->subscribers()->allObjects().front()->target(), item);
  EXPECT_THAT(other.received(), IsEmpty());
  executor.runAll();
  EXPECT_EQ(other.received().size(), 2u);
  EXPECT_EQ(other.received().front().item, number(1));
}

TEST_F(NotificationService, SubscribeToAnUnknownNameEntersAnItemThatRecordsNobody) {
  Error error;
  EXPECT_TRUE(service->subscribeTo("n", one.connection(), 0, &error));
  EXPECT_FALSE(error);
  const auto item = entry("n");
  ASSERT_NE(item, nullptr);
  EXPECT_TRUE(item->name().isNull());
  EXPECT_EQ(item->subscribers(), nullptr);
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_FALSE(service->removeSubscriptionForName("n", one.connection(), nullptr));
  // Can be taken over like any placeholder, under the name of its entry.
  EXPECT_EQ(mustPublish("n", 1, other), item);
  EXPECT_EQ(item->data(), number(1));
}

TEST_F(NotificationService, SubscribeToSetsTheTargetEvenWhenNobodyIsRecorded) {
  std::shared_ptr<KLNSubscriptionObject> made;
  service->makeSubscription = [&] {
    made = KLNSubscriptionObject::initWithName("n", nullptr);
    return made;
  };
  service->subscribeTo("n", one.connection(), 0, nullptr);
  EXPECT_EQ(made->target(), entry("n"));
}

TEST_F(NotificationService, SubscribeToWithoutANameChangesNothingAndSucceeds) {
  Error error;
  EXPECT_TRUE(service->subscribeTo(nullptr, one.connection(), 0, &error));
  EXPECT_FALSE(error);
  EXPECT_TRUE(service->published().empty());
}

TEST_F(NotificationService, RemoveSubscriptionDetachesAndKeepsTheEmptyPlaceholder) {
  RecordingSubscription subscriber("n", one.connection());
  service->subscribe(subscriber.subscription, nullptr);
  Error error;
  EXPECT_TRUE(service->removeSubscriptionForName("n", one.connection(), &error));
  EXPECT_FALSE(error);
  ASSERT_NE(entry("n"), nullptr);
  EXPECT_TRUE(entry("n")->subscribers()->empty());
  EXPECT_EQ(subscriber.behavior->invalidCount, 0);
}

TEST_F(NotificationService, RemoveSubscriptionOfAnUnknownOrUnfollowedNameFailsWithoutAnError) {
  Error error;
  EXPECT_FALSE(service->removeSubscriptionForName("n", one.connection(), &error));
  RecordingSubscription subscriber("n", one.connection());
  service->subscribe(subscriber.subscription, nullptr);
  EXPECT_FALSE(service->removeSubscriptionForName("n", other.connection(), &error));
  EXPECT_FALSE(service->removeSubscriptionForName("n", nullptr, &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(entry("n")->subscribers()->count(), 1u);
}

TEST_F(NotificationService, OfTwoSubscriptionsOfAConnectionTheLastIsRemoved) {
  const auto item = mustPublish("n", 1, one);
  service->subscribeTo("n", other.connection(), 0, nullptr);
  service->subscribeTo("n", other.connection(), 0, nullptr);
  const auto first = item->subscribers()->allObjects().front();
  EXPECT_TRUE(service->removeSubscriptionForName("n", other.connection(), nullptr));
  EXPECT_THAT(item->subscribers()->allObjects(), ElementsAre(first));
}

}  // namespace
}  // namespace keel
