// SPDX-License-Identifier: Apache-2.0
#include "notify/published_object.h"

#include "notify/notify_fixture.h"

namespace keel {
namespace {

// Records the calls that an item forwards.
class RecordingPublishBehavior final : public protocols::PublishBehavior {
 public:
  void updateWithData(Dictionary given) override {
    calls.push_back("updateWithData");
    data = std::move(given);
  }
  void updateWithError(Error given) override {
    calls.push_back("updateWithError");
    error = std::move(given);
  }
  void connectionIsInvalid() override { calls.push_back("connectionIsInvalid"); }
  bool remove() override {
    calls.push_back("remove");
    return removeAnswer;
  }
  void addSubscriber(std::shared_ptr<KLNSubscriptionObject> given) override {
    calls.push_back("addSubscriber");
    subscriber = std::move(given);
  }
  void removeSubscriber(const std::shared_ptr<KLNSubscriptionObject>& given) override {
    calls.push_back("removeSubscriber");
    subscriber = given;
  }

  std::vector<std::string> calls;
  Dictionary data;
  Error error;
  std::shared_ptr<KLNSubscriptionObject> subscriber;
  bool removeAnswer = false;
};

std::shared_ptr<KLNPublishedObject> publishedItem(Name name = "n") {
  auto item = KLNPublishedObject::initWithName(std::move(name));
  std::make_shared<KLNPublishBehavior>()->addTarget(item);
  return item;
}

TEST(PublishedObject, NullNameIsLoggedAndYieldsNothing) {
  LogRecorder log;
  EXPECT_EQ(KLNPublishedObject::initWithName(nullptr), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(errorLine("KLNPublishedItem: item name may not be nil")));
}

TEST(PublishedObject, WithANameItIsAPlaceholderWithoutAnything) {
  const LogRecorder log(LogLevel::debug);
  const Name name = "n";
  const auto item = KLNPublishedObject::initWithName(name);
  ASSERT_NE(item, nullptr);
  // The same text, not a copy.
  EXPECT_EQ(item->name().view().data(), name.view().data());
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_TRUE(item->data().isNull());
  EXPECT_FALSE(item->lastUpdated());
  EXPECT_EQ(item->owner(), nullptr);
  ASSERT_NE(item->subscribers(), nullptr);
  EXPECT_TRUE(item->subscribers()->empty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(PublishedObject, AnEmptyNameIsAName) {
  EXPECT_NE(KLNPublishedObject::initWithName(""), nullptr);
}

TEST(PublishedObject, PlainInitHasNoNameAndRecordsNoSubscriber) {
  const auto item = KLNPublishedObject::init();
  const RecordingSubscription subscriber("n");
  EXPECT_TRUE(item->name().isNull());
  EXPECT_EQ(item->subscribers(), nullptr);
  item->addSubscriber(subscriber.subscription);
  EXPECT_EQ(subscriber.subscription.use_count(), 1);
  EXPECT_EQ(item->subscribers(), nullptr);
  item->removeSubscriber(subscriber.subscription);
  EXPECT_EQ(item->subscriberForConnection(nullptr), nullptr);
}

TEST(PublishedObject, PlainInitWithABehaviorStoresDataAndHasNobodyToTell) {
  const auto item = KLNPublishedObject::init();
  std::make_shared<KLNPublishBehavior>()->addTarget(item);
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item->updateWithData(number(1));
  item->updateWithError(Error("d", 1));
  item->removeSubscriber(subscriber.subscription);
  EXPECT_EQ(item->data(), number(1));
  EXPECT_TRUE(item->lastUpdated());
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
  EXPECT_TRUE(item->remove());
  EXPECT_NE(item->delegate(), nullptr);
}

TEST(PublishedObject, ForwardsEverythingToItsDelegate) {
  const auto item = KLNPublishedObject::initWithName("n");
  const auto delegate = std::make_shared<RecordingPublishBehavior>();
  const RecordingSubscription subscriber("n");
  item->setDelegate(delegate);
  item->updateWithData(number(1));
  EXPECT_EQ(delegate->data, number(1));
  item->updateWithError(Error("d", 3));
  EXPECT_EQ(delegate->error, Error("d", 3));
  item->connectionIsInvalid();
  item->addSubscriber(subscriber.subscription);
  EXPECT_EQ(delegate->subscriber, subscriber.subscription);
  delegate->subscriber = nullptr;
  item->removeSubscriber(subscriber.subscription);
  EXPECT_EQ(delegate->subscriber, subscriber.subscription);
  EXPECT_FALSE(item->remove());
  delegate->removeAnswer = true;
  EXPECT_TRUE(item->remove());
  EXPECT_THAT(delegate->calls,
              ElementsAre("updateWithData", "updateWithError", "connectionIsInvalid",
                          "addSubscriber", "removeSubscriber", "remove", "remove"));
  EXPECT_TRUE(item->data().isNull());
  EXPECT_TRUE(item->subscribers()->empty());
}

TEST(PublishedObject, APlaceholderStoresDataWithoutDateAndDeliveries) {
  const auto item = KLNPublishedObject::initWithName("n");
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item->updateWithData(number(1));
  EXPECT_EQ(item->data(), number(1));
  EXPECT_FALSE(item->lastUpdated());
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());

  std::make_shared<KLNPublishBehavior>()->addTarget(item);
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
  item->updateWithData(number(2));
  EXPECT_TRUE(item->lastUpdated());
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(2)));
}

TEST(PublishedObject, APlaceholderIgnoresErrorsAndALostPublisherAndMayBeDropped) {
  const auto item = KLNPublishedObject::initWithName("n");
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item->setData(number(1));
  item->updateWithError(Error("d", 1));
  item->connectionIsInvalid();
  EXPECT_TRUE(item->remove());
  EXPECT_THAT(subscriber.behavior->errors, IsEmpty());
  EXPECT_EQ(item->data(), number(1));
  EXPECT_EQ(item->subscribers()->count(), 1u);
}

TEST(PublishedObject, APlaceholderKeepsItsSubscribersItself) {
  const auto item = KLNPublishedObject::initWithName("n");
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  EXPECT_TRUE(item->subscribers()->contains(subscriber.subscription));
  item->removeSubscriber(subscriber.subscription);
  EXPECT_TRUE(item->subscribers()->empty());
}

TEST(PublishedObject, FindsTheLastSubscriptionOfAConnection) {
  ManualExecutor executor;
  FakeClient one(executor);
  FakeClient other(executor);
  const auto item = publishedItem();
  const RecordingSubscription first("n", one.connection());
  const RecordingSubscription second("n", one.connection());
  const RecordingSubscription third("n", other.connection());
  for (const auto* each : {&first, &second, &third}) item->addSubscriber(each->subscription);
  EXPECT_EQ(item->subscriberForConnection(one.connection()), second.subscription);
  EXPECT_EQ(item->subscriberForConnection(other.connection()), third.subscription);
  EXPECT_EQ(item->subscriberForConnection(nullptr), nullptr);
  one.die();
  EXPECT_EQ(item->subscriberForConnection(nullptr), nullptr);
}

TEST(PublishedObject, HoldsItsBehaviorAndSubscribersButNotItsPublisher) {
  ManualExecutor executor;
  FakeClient client(executor);
  auto item = publishedItem();
  const std::weak_ptr<protocols::PublishBehavior> behavior = item->delegate();
  const std::weak_ptr<xpc::Connection> connection = client.connection();
  std::weak_ptr<KLNSubscriptionObject> subscription;
  {
    const RecordingSubscription subscriber("n");
    subscription = subscriber.subscription;
    subscriber.subscription->setTarget(item);
    item->addSubscriber(subscriber.subscription);
  }
  item->setOwner(client.connection());
  EXPECT_EQ(item->owner(), client.connection());
  client.die();
  EXPECT_TRUE(connection.expired());
  EXPECT_EQ(item->owner(), nullptr);
  EXPECT_FALSE(behavior.expired());
  EXPECT_FALSE(subscription.expired());
  // Nothing that the item owns keeps it alive.
  const std::weak_ptr<KLNPublishedObject> watched = item;
  item = nullptr;
  EXPECT_TRUE(watched.expired());
  EXPECT_TRUE(behavior.expired());
  EXPECT_TRUE(subscription.expired());
}

TEST(PublishedObject, LosingItsDelegateDestroysTheBehavior) {
  const auto item = publishedItem();
  const std::weak_ptr<protocols::PublishBehavior> behavior = item->delegate();
  item->setDelegate(nullptr);
  EXPECT_TRUE(behavior.expired());
}

TEST(PublishBehavior, BeginsWithoutAnItemAndDoesNothing) {
  const auto behavior = std::make_shared<KLNPublishBehavior>();
  EXPECT_EQ(behavior->published(), nullptr);
  const RecordingSubscription subscriber("n");
  behavior->updateWithData(number(1));
  behavior->updateWithError(Error("d", 1));
  behavior->connectionIsInvalid();
  behavior->addSubscriber(subscriber.subscription);
  behavior->removeSubscriber(subscriber.subscription);
  EXPECT_TRUE(behavior->remove());
  EXPECT_EQ(subscriber.subscription.use_count(), 1);
}

TEST(PublishBehavior, AddTargetBindsBothWays) {
  const auto behavior = std::make_shared<KLNPublishBehavior>();
  const auto item = KLNPublishedObject::initWithName("n");
  behavior->addTarget(item);
  EXPECT_EQ(behavior->published(), item);
  EXPECT_EQ(item->delegate(), behavior);
  behavior->addTarget(nullptr);
  EXPECT_EQ(behavior->published(), nullptr);
}

TEST(PublishBehavior, DataAreStoredDatedAndPassedOnInOrder) {
  const auto item = publishedItem();
  std::vector<int> order;
  std::vector<std::shared_ptr<KLNSubscriptionObject>> subscriptions;
  struct Ordered final : protocols::SubscriberBehavior {
    Ordered(std::vector<int>& all, int own) : order(all), number(own) {}
    void updateWithData(const Dictionary&) override { order.push_back(number); }
    void updateWithError(Error) override { order.push_back(-number); }
    void connectionIsInvalid() override {}
    std::vector<int>& order;
    int number;
  };
  for (int i = 1; i <= 3; ++i) {
    subscriptions.push_back(KLNSubscriptionObject::initWithName("n", nullptr));
    subscriptions.back()->setDelegate(std::make_shared<Ordered>(order, i));
    item->addSubscriber(subscriptions.back());
  }
  item->updateWithData(number(1));
  EXPECT_EQ(item->data(), number(1));
  EXPECT_TRUE(item->lastUpdated());
  item->updateWithError(Error("d", 1));
  EXPECT_THAT(order, ElementsAre(1, 2, 3, -1, -2, -3));
}

TEST(PublishBehavior, EqualDataAreDeliveredAndDatedAnew) {
  const auto item = publishedItem();
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item->updateWithData(number(1));
  const Date first = item->lastUpdated().value();
  waitForClockAfter(first);
  item->updateWithData(number(1));
  EXPECT_GT(item->lastUpdated(), first);
  EXPECT_LE(item->lastUpdated(), Date::now());
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(number(1), number(1)));
}

TEST(PublishBehavior, SubscribersGetTheSameDataNotACopy) {
  const auto item = publishedItem();
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  const Dictionary data = number(1);
  item->updateWithData(data);
  EXPECT_EQ(subscriber.behavior->data.front().buffer(), data.buffer());
  EXPECT_EQ(item->data().buffer(), data.buffer());
}

TEST(PublishBehavior, NullDataAreDelivered) {
  const auto item = publishedItem();
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item->updateWithData(nullptr);
  EXPECT_THAT(subscriber.behavior->data, ElementsAre(Dictionary()));
  EXPECT_TRUE(item->lastUpdated());
}

TEST(PublishBehavior, AnErrorIsPassedOnAndLeavesDataAndDate) {
  const auto item = publishedItem();
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item->updateWithData(number(1));
  item->setLastUpdated(Date{1.0});
  const Error error("d", 3, number(9));
  item->updateWithError(error);
  EXPECT_THAT(subscriber.behavior->errors, ElementsAre(error));
  EXPECT_EQ(item->data(), number(1));
  EXPECT_EQ(item->lastUpdated(), Date{1.0});
}

TEST(PublishBehavior, ALostPublisherSendsOneErrorToEachAndLeavesAPlaceholder) {
  const auto item = publishedItem();
  const RecordingSubscription one("n");
  const RecordingSubscription other("n");
  item->addSubscriber(one.subscription);
  item->addSubscriber(other.subscription);
  item->updateWithData(number(1));
  const std::weak_ptr<protocols::PublishBehavior> behavior = item->delegate();
  item->connectionIsInvalid();
  const Error expected(KLNErrorDomain, 8);
  EXPECT_THAT(one.behavior->errors, ElementsAre(expected));
  EXPECT_THAT(other.behavior->errors, ElementsAre(expected));
  EXPECT_TRUE(one.behavior->errors.front().userInfo().isNull());
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_TRUE(behavior.expired());
  EXPECT_EQ(item->data(), number(1));
  EXPECT_EQ(item->subscribers()->count(), 2u);
  // A placeholder ignores it.
  item->connectionIsInvalid();
  EXPECT_EQ(one.behavior->errors.size(), 1u);
}

TEST(PublishBehavior, RemoveWithoutSubscribersIsGrantedAndChangesNothing) {
  const auto item = publishedItem();
  const auto behavior = item->delegate();
  EXPECT_TRUE(item->remove());
  EXPECT_EQ(item->delegate(), behavior);
}

TEST(PublishBehavior, RemoveWithSubscribersLeavesAPlaceholderAndDeliversNothing) {
  const auto item = publishedItem();
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item->updateWithData(number(1));
  EXPECT_FALSE(item->remove());
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_EQ(item->data(), number(1));
  EXPECT_EQ(item->subscribers()->count(), 1u);
  EXPECT_EQ(subscriber.behavior->data.size(), 1u);
  EXPECT_THAT(subscriber.behavior->errors, IsEmpty());
}

TEST(PublishBehavior, KeepsTheItemsSetOfSubscribers) {
  const auto item = publishedItem();
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  EXPECT_TRUE(item->subscribers()->contains(subscriber.subscription));
  item->removeSubscriber(subscriber.subscription);
  EXPECT_TRUE(item->subscribers()->empty());
}

TEST(PublishBehavior, DoesNotHoldItsItem) {
  auto item = publishedItem();
  const auto behavior = std::static_pointer_cast<KLNPublishBehavior>(item->delegate());
  const RecordingSubscription subscriber("n");
  item->addSubscriber(subscriber.subscription);
  item = nullptr;
  EXPECT_EQ(behavior->published(), nullptr);
  behavior->updateWithData(number(1));
  behavior->updateWithError(Error("d", 1));
  behavior->connectionIsInvalid();
  EXPECT_TRUE(behavior->remove());
  EXPECT_THAT(subscriber.behavior->data, IsEmpty());
  EXPECT_THAT(subscriber.behavior->errors, IsEmpty());
}

TEST(PublishBehavior, OneUpdateReadsTheClockOncePerBlock) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("q", executor);
  const auto one = publishedItem("a");
  const auto other = publishedItem("b");
  queue->async([one, other] {
    one->updateWithData(nullptr);
    other->updateWithData(nullptr);
  });
  executor.runAll();
  EXPECT_EQ(one->lastUpdated(), other->lastUpdated());
}

}  // namespace
}  // namespace keel
