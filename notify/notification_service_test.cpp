// SPDX-License-Identifier: Apache-2.0
#include "notify/service_fixture.h"

namespace keel {
namespace {

TEST_F(NotificationService, BeginsEmptyWithTwoQueues) {
  EXPECT_TRUE(service->published().empty());
  EXPECT_TRUE(service->publishers().empty());
  EXPECT_EQ(service->inputQ()->label(), "KLNNotificationInputQ");
  EXPECT_EQ(service->updateQ()->label(), "KLNNotificationUpdateQ");
  EXPECT_EQ(service->inputQ(), service->inputQ());
  EXPECT_NE(service->inputQ(), service->updateQ());
}

TEST_F(NotificationService, DefaultServiceIsTheInnermostOverride) {
  EXPECT_EQ(KLNNotificationService::defaultService(), service);
  const auto inner = std::make_shared<KLNNotificationService>(executor);
  {
    const KLNNotificationService::Override innermost(inner);
    EXPECT_EQ(KLNNotificationService::defaultService(), inner);
  }
  EXPECT_EQ(KLNNotificationService::defaultService(), service);
}

TEST_F(NotificationService, WithoutOverrideThereIsOneDefaultService) {
  const KLNNotificationService::Override none(nullptr);
  const auto first = KLNNotificationService::defaultService();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(KLNNotificationService::defaultService(), first);
  EXPECT_NE(first, service);
}

TEST_F(NotificationService, AddPublisherDoesNothing) {
  service->addPublisher(one.connection());
  mustPublish("n", 1, one);
  EXPECT_TRUE(service->publishers().empty());
}

TEST_F(NotificationService, TheUpdateQueueGetsNoWork) {
  const auto subscription = service->newSubscriptionObjectForName("n", 0, 0, one.connection());
  mustPublish("n", 1, one);
  service->subscribe(subscription, nullptr);
  // Only the input queue is scheduled.
  EXPECT_EQ(executor.scheduledCount(), 1u);
  bool updateQueueRan = false;
  service->updateQ()->async([&] { updateQueueRan = true; });
  EXPECT_EQ(executor.scheduledCount(), 2u);
  executor.runAll();
  EXPECT_TRUE(updateQueueRan);
}

TEST_F(NotificationService, ANewItemIsPublishedDatedAndNotInTheTable) {
  const auto item = newItem("n", 1, one);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->name(), Name("n"));
  EXPECT_EQ(item->data(), number(1));
  EXPECT_TRUE(item->lastUpdated());
  EXPECT_EQ(item->owner(), one.connection());
  const auto behavior = std::dynamic_pointer_cast<KLNPublishBehavior>(item->delegate());
  ASSERT_NE(behavior, nullptr);
  EXPECT_EQ(behavior->published(), item);
  EXPECT_TRUE(service->published().empty());
}

TEST_F(NotificationService, ANewItemWithoutANameIsNone) {
  EXPECT_EQ(service->newPublishedObjectWith(number(1), nullptr, 0, 0, one.connection()), nullptr);
  EXPECT_THAT(lines(), ElementsAre(errorLine("KLNPublishedItem: item name may not be nil")));
}

TEST_F(NotificationService, ANewItemMayHaveNoData) {
  const auto item = service->newPublishedObjectWith(nullptr, "n", 0, 0, one.connection());
  EXPECT_TRUE(item->data().isNull());
  EXPECT_TRUE(item->lastUpdated());
}

TEST_F(NotificationService, FlagsAndValueReachTheFactoriesWhichIgnoreThem) {
  std::vector<std::pair<std::uint64_t, std::int64_t>> asked;
  service->makePublishBehavior = [&](std::uint64_t flags, std::int64_t value) {
    asked.emplace_back(flags, value);
    return service->KLNNotificationService::newPublishBehaviorFromFlags(flags, value);
  };
  service->makeSubscriberBehavior = [&](std::uint64_t flags, std::int64_t value) {
    asked.emplace_back(flags, value);
    return service->KLNNotificationService::newSubscriberBehaviorFromFlags(flags, value);
  };
  const auto item =
      service->newPublishedObjectWith(number(1), "n", kAnyFlags, kAnyValue, one.connection());
  const auto subscription =
      service->newSubscriptionObjectForName("n", kAnyFlags, kAnyValue, one.connection());
  service->publishItem(number(1), "m", 5, -6, one.connection(), nullptr);
  service->subscribeTo("n", one.connection(), 7, nullptr);
  EXPECT_THAT(asked, ElementsAre(std::pair(kAnyFlags, kAnyValue), std::pair(kAnyFlags, kAnyValue),
                                 std::pair(std::uint64_t{5}, std::int64_t{-6}),
                                 std::pair(std::uint64_t{7}, std::int64_t{0})));
  EXPECT_NE(std::dynamic_pointer_cast<KLNPublishBehavior>(item->delegate()), nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<SubscriberBehavior>(subscription->delegate()), nullptr);
}

TEST_F(NotificationService, WithoutABehaviorANewItemIsAPlaceholder) {
  service->makePublishBehavior = [](std::uint64_t, std::int64_t) { return nullptr; };
  const auto item = newItem("n", 1, one);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_EQ(item->data(), number(1));
  EXPECT_FALSE(item->lastUpdated());
}

TEST_F(LoggedNotificationService, PublishEntersTheItem) {
  auto item = newItem("n", 1, one);
  const auto made = item;
  Error error;
  EXPECT_TRUE(service->publish(item, &error));
  EXPECT_EQ(item, made);
  EXPECT_EQ(entry("n"), made);
  EXPECT_FALSE(error);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(NotificationService, PublishOfNothingFails) {
  std::shared_ptr<KLNPublishedObject> item;
  Error error;
  EXPECT_FALSE(service->publish(item, &error));
  EXPECT_EQ(error, Error(KLNErrorDomain, 13));
  EXPECT_FALSE(service->publish(item, nullptr));
  EXPECT_TRUE(service->published().empty());
}

TEST_F(LoggedNotificationService, PublishOfAPublishedNameIsRefusedToEverybody) {
  const auto first = mustPublish("n", 1, one);
  for (const FakeClient* client : {&one, &other}) {
    auto item = newItem("n", 2, *client);
    const auto made = item;
    Error error;
    EXPECT_FALSE(service->publish(item, &error));
    EXPECT_EQ(error.domain(), String(KLNErrorDomain));
    EXPECT_EQ(error.code(), 9);
    EXPECT_EQ(error.userInfo().value(),
              Value::map({{"NSLocalizedDescription", "the key n has already been published"}}));
    EXPECT_FALSE(service->publish(item, nullptr));
    EXPECT_EQ(item, made);
    EXPECT_EQ(entry("n"), first);
    EXPECT_EQ(first->data(), number(1));
    EXPECT_EQ(first->owner(), one.connection());
  }
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(NotificationService, PublishTakesAPlaceholderOver) {
  RecordingSubscription subscriber("n", other.connection());
  ASSERT_TRUE(service->subscribe(subscriber.subscription, nullptr));
  const auto placeholder = entry("n");
  auto item = newItem("n", 1, one);
  const auto behavior = item->delegate();
  const std::weak_ptr<KLNPublishedObject> made = item;
  EXPECT_TRUE(service->publish(item, nullptr));
  EXPECT_EQ(item, placeholder);
  EXPECT_TRUE(made.expired());
  EXPECT_EQ(entry("n"), placeholder);
  EXPECT_EQ(placeholder->owner(), one.connection());
  EXPECT_EQ(placeholder->delegate(), behavior);
  EXPECT_EQ(std::static_pointer_cast<KLNPublishBehavior>(behavior)->published(), placeholder);
  EXPECT_EQ(placeholder->data(), number(1));
  EXPECT_TRUE(placeholder->lastUpdated());
  EXPECT_TRUE(placeholder->subscribers()->contains(subscriber.subscription));
  // At once, not through the queue.
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(1)));
  executor.runAll();
  EXPECT_EQ(subscriber.behavior->data.size(), 1u);
}

TEST_F(NotificationService, PublishOfAnItemWithoutABehaviorLeavesThePlaceholderOne) {
  RecordingSubscription subscriber("n", other.connection());
  service->subscribe(subscriber.subscription, nullptr);
  service->makePublishBehavior = [](std::uint64_t, std::int64_t) { return nullptr; };
  auto item = newItem("n", 1, one);
  EXPECT_TRUE(service->publish(item, nullptr));
  EXPECT_EQ(entry("n")->delegate(), nullptr);
  EXPECT_EQ(entry("n")->data(), number(1));
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
}

TEST_F(NotificationService, NamesAreComparedExactly) {
  mustPublish("name", 1, one);
  for (const char* name : {"Name", "name ", "", "_all"})
    EXPECT_NE(mustPublish(name, 2, one), nullptr);
  EXPECT_EQ(service->published().size(), 5u);
  EXPECT_EQ(entry("name")->data(), number(1));
}

TEST_F(LoggedNotificationService, PublishItemEntersANewItem) {
  Error error;
  EXPECT_TRUE(service->publishItem(number(1), "n", kAnyFlags, kAnyValue, one.connection(), &error));
  EXPECT_FALSE(error);
  ASSERT_NE(entry("n"), nullptr);
  EXPECT_NE(entry("n")->delegate(), nullptr);
  EXPECT_EQ(entry("n")->data(), number(1));
  EXPECT_EQ(entry("n")->owner(), one.connection());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(LoggedNotificationService, PublishItemOfAPublishedNameIsRefused) {
  service->publishItem(number(1), "n", 0, 0, one.connection(), nullptr);
  Error error;
  EXPECT_FALSE(service->publishItem(number(2), "n", 0, 0, one.connection(), &error));
  EXPECT_EQ(error, Error(KLNErrorDomain, 9));
  EXPECT_TRUE(error.userInfo().isNull());
  EXPECT_EQ(entry("n")->data(), number(1));
  EXPECT_THAT(
      lines(),
      ElementsAre(
          debugLine("publishItem: we are publishing to an item (n) that already has subscribers"),
          errorLine("publishItem: someone else has already published n")));
  EXPECT_FALSE(service->publishItem(number(2), "n", 0, 0, one.connection(), nullptr));
}

TEST_F(LoggedNotificationService, PublishItemTakesAPlaceholderOver) {
  RecordingSubscription subscriber("n", other.connection());
  service->subscribe(subscriber.subscription, nullptr);
  const auto placeholder = entry("n");
  EXPECT_TRUE(service->publishItem(number(1), "n", 0, 0, one.connection(), nullptr));
  EXPECT_EQ(entry("n"), placeholder);
  EXPECT_EQ(placeholder->owner(), one.connection());
  EXPECT_EQ(std::dynamic_pointer_cast<KLNPublishBehavior>(placeholder->delegate())->published(),
            placeholder);
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(1)));
  EXPECT_THAT(
      lines(),
      ElementsAre(
          debugLine("publishItem: we are publishing to an item (n) that already has subscribers"),
          debugLine("updateWithData: n")));
}

TEST_F(NotificationService, PublishItemWithoutANameIsRefused) {
  Error error;
  EXPECT_FALSE(service->publishItem(number(1), nullptr, 0, 0, one.connection(), &error));
  EXPECT_EQ(error, Error(KLNErrorDomain, 13));
  EXPECT_TRUE(service->published().empty());
}

TEST_F(NotificationService, UpdateReachesTheOwnersItem) {
  const auto item = mustPublish("n", 1, one);
  RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  Error error;
  EXPECT_TRUE(service->updatePublishedItem(number(2), "n", one.connection(), &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(item->data(), number(2));
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(2)));
}

TEST_F(NotificationService, UpdateOfAnUnknownNameIsNotFound) {
  Error error;
  EXPECT_FALSE(service->updatePublishedItem(number(2), "n", one.connection(), &error));
  EXPECT_EQ(error, Error(KLNErrorDomain, 11));
  EXPECT_FALSE(service->updatePublishedItem(number(2), "n", one.connection(), nullptr));
}

TEST_F(NotificationService, UpdateByAnotherOrOfAGoneOwnerIsRefused) {
  mustPublish("n", 1, one);
  const auto expectRefused = [this](const std::shared_ptr<xpc::Connection>& connection) {
    Error error;
    EXPECT_FALSE(service->updatePublishedItem(number(2), "n", connection, &error));
    EXPECT_EQ(error, Error(KLNErrorDomain, 10));
    EXPECT_FALSE(service->updatePublishedItem(number(2), "n", connection, nullptr));
    EXPECT_EQ(entry("n")->data(), number(1));
  };
  expectRefused(other.connection());
  expectRefused(nullptr);
  one.die();
  expectRefused(nullptr);
}

TEST_F(LoggedNotificationService, RemoveWithoutSubscribersDeletesTheEntry) {
  auto item = mustPublish("n", 1, one);
  Error error;
  EXPECT_TRUE(service->removePublishedItemForName("n", one.connection(), &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(entry("n"), nullptr);
  EXPECT_THAT(lines(), ElementsAre(debugLine("removePublishedItemForName n ")));
  const std::weak_ptr<KLNPublishedObject> watched = item;
  item = nullptr;
  EXPECT_TRUE(watched.expired());
}

TEST_F(NotificationService, RemoveWithSubscribersKeepsAPlaceholderWithTheLastData) {
  const auto item = mustPublish("n", 1, one);
  RecordingSubscription subscriber("n", other.connection());
  item->addSubscriber(subscriber.subscription);
  EXPECT_TRUE(service->removePublishedItemForName("n", one.connection(), nullptr));
  EXPECT_EQ(entry("n"), item);
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_EQ(item->data(), number(1));
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
  EXPECT_THAT(subscriber.behavior->errors, IsEmpty());

  // A late subscriber gets the old data, a new publisher takes over.
  RecordingSubscription late("n");
  service->subscribe(late.subscription, nullptr);
  executor.runAll();
  EXPECT_THAT(late.behavior->data, ElementsAre(number(1)));
  EXPECT_EQ(mustPublish("n", 2, other), item);
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(2)));
  EXPECT_THAT(late.behavior->data, ElementsAre(number(1), number(2)));
}

TEST_F(NotificationService, ABehaviorThatRefusesToGoIsTakenOffTheItem) {
  struct Reluctant final : protocols::PublishBehavior {
    void updateWithData(Dictionary) override {}
    void updateWithError(Error) override {}
    void connectionIsInvalid() override {}
    bool remove() override { return false; }
    void addSubscriber(std::shared_ptr<KLNSubscriptionObject>) override {}
    void removeSubscriber(const std::shared_ptr<KLNSubscriptionObject>&) override {}
  };
  const auto item = mustPublish("n", 1, one);
  item->setDelegate(std::make_shared<Reluctant>());
  EXPECT_TRUE(service->removePublishedItemForName("n", one.connection(), nullptr));
  EXPECT_EQ(entry("n"), item);
  EXPECT_EQ(item->delegate(), nullptr);
}

TEST_F(NotificationService, TheOwnerCanDeleteAPlaceholderEvenWithSubscribers) {
  const auto item = mustPublish("n", 1, one);
  RecordingSubscription subscriber("n", other.connection());
  item->addSubscriber(subscriber.subscription);
  service->removePublishedItemForName("n", one.connection(), nullptr);
  EXPECT_TRUE(service->removePublishedItemForName("n", one.connection(), nullptr));
  EXPECT_EQ(entry("n"), nullptr);
}

TEST_F(LoggedNotificationService, RemoveOfAnUnknownNameIsNotFound) {
  Error error;
  EXPECT_FALSE(service->removePublishedItemForName("n", one.connection(), &error));
  EXPECT_EQ(error, Error(KLNErrorDomain, 11));
  EXPECT_THAT(lines(), ElementsAre(debugLine("removePublishedItemForName n ")));
  EXPECT_FALSE(service->removePublishedItemForName("n", one.connection(), nullptr));
}

TEST_F(LoggedNotificationService, RemoveByAnotherOrOfAGoneOwnerIsRefused) {
  const auto item = mustPublish("n", 1, one);
  const auto expectRefused = [&](const std::shared_ptr<xpc::Connection>& connection) {
    Error error;
    EXPECT_FALSE(service->removePublishedItemForName("n", connection, &error));
    EXPECT_EQ(error, Error(KLNErrorDomain, 10));
    EXPECT_FALSE(service->removePublishedItemForName("n", connection, nullptr));
    EXPECT_EQ(entry("n"), item);
    EXPECT_NE(item->delegate(), nullptr);
  };
  expectRefused(other.connection());
  EXPECT_EQ(lines().front(), debugLine("removePublishedItemForName n "));
  one.die();
  expectRefused(nullptr);
}

TEST_F(NotificationService, HoldsItemsAndTheyTheirSubscriptionsButNoConnection) {
  const std::weak_ptr<KLNPublishedObject> item = mustPublish("n", 1, one);
  const std::weak_ptr<xpc::Connection> connection = one.connection();
  std::weak_ptr<KLNSubscriptionObject> subscription;
  {
    const auto made = service->newSubscriptionObjectForName("n", 0, 0, other.connection());
    service->subscribe(made, nullptr);
    subscription = made;
  }
  executor.runAll();
  one.die();
  EXPECT_TRUE(connection.expired());
  EXPECT_FALSE(item.expired());
  EXPECT_FALSE(subscription.expired());
  service->published().clear();
  EXPECT_TRUE(item.expired());
  EXPECT_TRUE(subscription.expired());
}

// The name "mine" is reserved for user 501.
class ReservedName : public NotificationService {
 protected:
  static xpc::PeerIdentity peerOf(uid_t user) {
    xpc::PeerIdentity peer = FakeClient::identity(3);
    peer.uid = user;
    return peer;
  }
  ReservedName() {
    NameReservations reservations;
    reservations.add("mine 501", "test", [](const std::string&) { return std::nullopt; });
    service->setReservations(std::move(reservations));
  }
  // Publishes in both ways, which must return the same error.
  Error publishError(const Name& name, const std::shared_ptr<xpc::Connection>& connection) {
    Error error;
    auto item = service->newPublishedObjectWith(number(1), name, 0, 0, connection);
    const bool published = service->publish(item, &error);
    EXPECT_EQ(published, !error);
    if (!error) service->removePublishedItemForName(name, connection, nullptr);
    Error second;
    const bool publishedAgain = service->publishItem(number(1), name, 0, 0, connection, &second);
    EXPECT_EQ(publishedAgain, !second);
    if (!second) service->removePublishedItemForName(name, connection, nullptr);
    EXPECT_EQ(error, second);
    return error;
  }

  FakeClient owner{executor, peerOf(501)};
  FakeClient stranger{executor, peerOf(502)};
  FakeClient root{executor, peerOf(0)};
};

TEST_F(ReservedName, IsPublishedByItsUserAndRootAlone) {
  EXPECT_FALSE(publishError("mine", owner.connection()));
  EXPECT_FALSE(publishError("mine", root.connection()));
  const Error refusal = publishError("mine", stranger.connection());
  EXPECT_EQ(refusal.domain(), KLNErrorDomain);
  EXPECT_EQ(refusal.code(), errNotOwner);
  EXPECT_EQ(refusal.userInfo().value().textOf(NSLocalizedDescriptionKey),
            "the name mine is reserved for another user");
  EXPECT_EQ(entry("mine"), nullptr);
}

TEST_F(ReservedName, LeavesOtherNamesToEverybody) {
  EXPECT_FALSE(publishError("other", stranger.connection()));
}

TEST_F(ReservedName, IsNotPublishedForADisconnectedClient) {
  EXPECT_EQ(publishError("mine", nullptr).code(), errNotOwner);
  Error error;
  EXPECT_TRUE(service->publishItem(number(1), "other", 0, 0, nullptr, &error));
}

TEST_F(ReservedName, MayBeFollowedByEverybodyAndStaysReserved) {
  const auto subscription =
      service->newSubscriptionObjectForName("mine", 0, 0, stranger.connection());
  EXPECT_TRUE(service->subscribe(subscription, nullptr));
  Error error;
  EXPECT_FALSE(service->publishItem(number(1), "mine", 0, 0, stranger.connection(), &error));
  EXPECT_EQ(error.code(), errNotOwner);
  EXPECT_EQ(entry("mine")->delegate(), nullptr);
  EXPECT_TRUE(service->publishItem(number(1), "mine", 0, 0, owner.connection(), &error));
}

}  // namespace
}  // namespace keel
