// SPDX-License-Identifier: Apache-2.0
#include "notify/subscription_object.h"

#include "notify/notify_fixture.h"

namespace keel {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr Date kPast{1.0};

// A client, and a subscription of it with or without a behaviour.
class SubscriptionObject : public ::testing::Test {
 protected:
  explicit SubscriptionObject(LogLevel least = LogLevel::standard) : log(least) {
    client.connection()->setRemoteObjectInterface(
        xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
  }

  std::shared_ptr<KLNSubscriptionObject> plain(Name name = "n") {
    return KLNSubscriptionObject::initWithName(std::move(name), client.connection());
  }
  std::shared_ptr<KLNSubscriptionObject> withBehavior(Name name = "n") {
    auto subscription = plain(std::move(name));
    std::make_shared<SubscriberBehavior>()->addTarget(subscription);
    return subscription;
  }
  void connect() { client.connection()->resume(); }
  // Connects a client that exports nothing, so sending to it fails.
  void connectWithoutExports() {
    client.exportSelectors({});
    connect();
  }

  void expectOnlyUpdate(const Name& name, const Dictionary& item, const Error& error) {
    ASSERT_EQ(client.received().size(), 1u);
    const Received& update = client.received().front();
    EXPECT_EQ(update.kind, Received::Kind::update);
    EXPECT_EQ(update.name, name);
    EXPECT_EQ(update.item, item);
    EXPECT_EQ(update.flags, 0u);
    EXPECT_EQ(update.error, error);
  }

  // Expects one line since, with that beginning and end and a connection error in between.
  void expectSendError(const std::string& beginning, const std::string& end = "") {
    EXPECT_THAT(
        log.take(),
        ElementsAre(AllOf(
            Field(&LogLine::level, LogLevel::error), Field(&LogLine::category, "notification"),
            Field(&LogLine::text, AllOf(StartsWith(beginning), EndsWith(end),
                                        HasSubstr(std::string(xpc::kConnectionErrorDomain)))))));
  }

  ManualExecutor executor;
  FakeClient client{executor};
  LogRecorder log;
};

// For tests that check debug lines, or that there are none.
class LoggedSubscriptionObject : public SubscriptionObject {
 protected:
  LoggedSubscriptionObject() : SubscriptionObject(LogLevel::debug) {}
};

using SubscriptionBehavior = SubscriptionObject;
using LoggedSubscriptionBehavior = LoggedSubscriptionObject;

TEST_F(SubscriptionObject, InitYieldsNothingAndLogs) {
  EXPECT_EQ(KLNSubscriptionObject::init(), nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre(errorLine("KLNSubscriptionObject: subscription name may not be nil")));
}

TEST_F(SubscriptionObject, NullNameYieldsNothingAndLogs) {
  EXPECT_EQ(KLNSubscriptionObject::initWithName(nullptr, client.connection()), nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre(errorLine("KLNSubscriptionObject: subscription name may not be nil")));
}

TEST_F(LoggedSubscriptionObject, HasItsNameAndOwnerAndNothingElse) {
  const Name name = "n";
  const auto subscription = KLNSubscriptionObject::initWithName(name, client.connection());
  EXPECT_EQ(subscription->name().view().data(), name.view().data());
  EXPECT_EQ(subscription->owner(), client.connection());
  EXPECT_EQ(subscription->delegate(), nullptr);
  EXPECT_FALSE(subscription->lastUpdated());
  EXPECT_EQ(subscription->target(), nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SubscriptionObject, ANullConnectionIsAccepted) {
  const auto subscription = KLNSubscriptionObject::initWithName("n", nullptr);
  ASSERT_NE(subscription, nullptr);
  EXPECT_EQ(subscription->owner(), nullptr);
}

TEST_F(SubscriptionObject, HoldsNeitherOwnerNorTargetButItsBehavior) {
  const auto subscription = withBehavior();
  const std::weak_ptr<xpc::Connection> connection = client.connection();
  const std::weak_ptr<protocols::SubscriberBehavior> behavior = subscription->delegate();
  auto item = KLNPublishedObject::initWithName("n");
  subscription->setTarget(item);
  EXPECT_EQ(subscription->target(), item);
  item = nullptr;
  client.die();
  EXPECT_TRUE(connection.expired());
  EXPECT_EQ(subscription->owner(), nullptr);
  EXPECT_EQ(subscription->target(), nullptr);
  EXPECT_FALSE(behavior.expired());
  subscription->setDelegate(nullptr);
  EXPECT_TRUE(behavior.expired());
}

TEST_F(SubscriptionObject, OnlyAnotherOwnerCountsAsAChange) {
  FakeClient other(executor);
  const auto subscription = plain();
  const auto before = KLNSubscriptionObject::ownerChangeCount();
  subscription->setOwner(client.connection());
  EXPECT_EQ(KLNSubscriptionObject::ownerChangeCount(), before);
  subscription->setOwner(other.connection());
  EXPECT_EQ(KLNSubscriptionObject::ownerChangeCount(), before + 1);
  EXPECT_EQ(subscription->owner(), other.connection());
  subscription->setOwner(nullptr);
  EXPECT_EQ(KLNSubscriptionObject::ownerChangeCount(), before + 2);
  EXPECT_EQ(subscription->owner(), nullptr);
}

TEST_F(LoggedSubscriptionObject, ForwardsEverythingToItsDelegate) {
  const RecordingSubscription recording("n", client.connection());
  const auto& subscription = *recording.subscription;
  recording.subscription->updateWithData(number(1));
  recording.subscription->updateWithError(Error("d", 8));
  recording.subscription->connectionIsInvalid();
  EXPECT_THAT(recording.behavior->data, ElementsAre(number(1)));
  // Only the behaviour drops errors.
  EXPECT_THAT(recording.behavior->errors, ElementsAre(Error("d", 8)));
  EXPECT_EQ(recording.behavior->invalidCount, 1);
  EXPECT_FALSE(subscription.lastUpdated());
  EXPECT_THAT(log.lines(),
              ElementsAre(debugLine("updateWithData: n"), debugLine("updateWithError: n")));
}

TEST_F(LoggedSubscriptionObject, DeliversDataItselfWithoutABehavior) {
  connect();
  const auto subscription = plain();
  subscription->updateWithData(number(1));
  expectOnlyUpdate("n", number(1), nullptr);
  EXPECT_TRUE(subscription->lastUpdated());
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("updateWithData: n")));
}

TEST_F(LoggedSubscriptionObject, DeliversAnErrorItselfWithoutABehavior) {
  connect();
  const auto subscription = plain();
  const Error error("d", 3, number(5));
  subscription->updateWithError(error);
  expectOnlyUpdate("n", nullptr, error);
  EXPECT_TRUE(subscription->lastUpdated());
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("updateWithError: n")));
}

TEST_F(LoggedSubscriptionObject, DropsALostPublisherOfAnyDomainItself) {
  connect();
  const auto subscription = plain();
  subscription->updateWithError(Error("d", 8));
  subscription->updateWithError(Error(KLNErrorDomain, 8));
  EXPECT_THAT(client.received(), IsEmpty());
  EXPECT_FALSE(subscription->lastUpdated());
  const auto dropped =
      debugLine("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected(8)");
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("updateWithError: n"), dropped,
                                       debugLine("updateWithError: n"), dropped));
}

TEST_F(LoggedSubscriptionObject, AGoneClientIsLoggedAndNothingChanges) {
  connect();
  const auto subscription = plain();
  subscription->setLastUpdated(kPast);
  client.die();
  subscription->updateWithData(number(1));
  EXPECT_THAT(log.take(), ElementsAre(debugLine("updateWithData: n"),
                                      errorLine("updateWithData: connection is nil")));
  subscription->updateWithError(Error("d", 1));
  EXPECT_THAT(log.take(), ElementsAre(debugLine("updateWithError: n"),
                                      errorLine("updateWithError: connection is nil")));
  EXPECT_EQ(subscription->lastUpdated(), kPast);
  // errPublisherDisconnected is dropped before the client is looked up.
  subscription->updateWithError(Error("d", 8));
  EXPECT_THAT(
      log.take(),
      ElementsAre(
          debugLine("updateWithError: n"),
          debugLine("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected(8)")));
}

TEST_F(LoggedSubscriptionObject, AFailureToSendIsLoggedLaterAndChangesNothing) {
  connectWithoutExports();
  const auto item = KLNPublishedObject::initWithName("n");
  const auto subscription = plain("before");
  item->addSubscriber(subscription);
  subscription->setTarget(item);
  subscription->updateWithData(number(1));
  EXPECT_THAT(log.take(), ElementsAre(debugLine("updateWithData: before")));
  EXPECT_TRUE(subscription->lastUpdated());
  subscription->setName("after");
  executor.runAll();
  expectSendError("updateWithData: (after) connection returned an error ");
  const Error error("d", 3);
  subscription->updateWithError(error);
  log.take();
  executor.runAll();
  expectSendError("updateWithError: (after) connection returned an error ",
                  " when sending error " + error.description());
  EXPECT_TRUE(item->subscribers()->contains(subscription));
  EXPECT_EQ(subscription->target(), item);
}

TEST_F(LoggedSubscriptionObject, LeavesItsItemItselfWithoutABehavior) {
  const auto item = KLNPublishedObject::initWithName("n");
  const auto subscription = plain();
  item->addSubscriber(subscription);
  subscription->setTarget(item);
  subscription->connectionIsInvalid();
  EXPECT_TRUE(item->subscribers()->empty());
  EXPECT_EQ(subscription->target(), nullptr);
  EXPECT_THAT(log.take(), ElementsAre(debugLine("connectionIsInvalid: unsubscribing from n")));
  item->addSubscriber(subscription);
  subscription->connectionIsInvalid();
  EXPECT_THAT(log.take(), ElementsAre(debugLine("connectionIsInvalid: unsubscribing from n")));
  EXPECT_TRUE(item->subscribers()->contains(subscription));
}

TEST_F(SubscriptionObject, LeavesItsItemEvenWhenOnlyTheItemHoldsIt) {
  const auto item = KLNPublishedObject::initWithName("n");
  std::weak_ptr<KLNSubscriptionObject> watched;
  {
    const auto subscription = plain();
    item->addSubscriber(subscription);
    subscription->setTarget(item);
    watched = subscription;
  }
  item->subscribers()->allObjects().front()->connectionIsInvalid();
  EXPECT_TRUE(watched.expired());
}

TEST_F(SubscriptionBehavior, AddTargetBindsBothWays) {
  const auto behavior = std::make_shared<SubscriberBehavior>();
  EXPECT_EQ(behavior->subscriber(), nullptr);
  const auto subscription = plain();
  behavior->addTarget(subscription);
  EXPECT_EQ(behavior->subscriber(), subscription);
  EXPECT_EQ(subscription->delegate(), behavior);
  EXPECT_EQ(subscription.use_count(), 1);
  behavior->addTarget(nullptr);
  EXPECT_EQ(behavior->subscriber(), nullptr);
}

TEST_F(LoggedSubscriptionBehavior, SendsData) {
  connect();
  const auto subscription = withBehavior();
  subscription->updateWithData(number(1));
  expectOnlyUpdate("n", number(1), nullptr);
  EXPECT_TRUE(subscription->lastUpdated());
  EXPECT_THAT(log.lines(),
              ElementsAre(debugLine("updateWithData: n"), debugLine("updateWithData: n behavior"),
                          debugLine("updateWithData: n behavior notification sent")));
  // Nothing is reported later.
  log.take();
  executor.runAll();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SubscriptionBehavior, SendsNullDataAsANullItemWithoutAnError) {
  connect();
  withBehavior()->updateWithData(nullptr);
  expectOnlyUpdate("n", nullptr, nullptr);
}

TEST_F(LoggedSubscriptionBehavior, SendsAnErrorUnchanged) {
  connect();
  const auto subscription = withBehavior();
  const Error error("d", 3, number(5));
  subscription->updateWithError(error);
  expectOnlyUpdate("n", nullptr, error);
  EXPECT_TRUE(subscription->lastUpdated());
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("updateWithError: n"),
                                       debugLine("SubscriberBehavior:updateWithError: n")));
}

TEST_F(LoggedSubscriptionBehavior, DropsALostPublisherOfAnyDomainBeforeLookingForTheClient) {
  connect();
  const auto subscription = withBehavior();
  const auto expectDropped = [&](const Error& error) {
    subscription->updateWithError(error);
    EXPECT_THAT(
        log.linesOf("notification"),
        ElementsAre(
            debugLine("updateWithError: n"), debugLine("SubscriberBehavior:updateWithError: n"),
            debugLine("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected(8)")));
    log.take();
  };
  expectDropped(Error("d", 8));
  expectDropped(Error(KLNErrorDomain, 8));
  EXPECT_THAT(client.received(), IsEmpty());
  client.die();
  log.take();
  expectDropped(Error(KLNErrorDomain, 8));
  EXPECT_FALSE(subscription->lastUpdated());
}

TEST_F(SubscriptionBehavior, ANeighbourOfTheDroppedCodeIsSent) {
  connect();
  const auto subscription = withBehavior();
  subscription->updateWithError(Error(KLNErrorDomain, 7));
  subscription->updateWithError(Error(KLNErrorDomain, 9));
  EXPECT_EQ(client.received().size(), 2u);
}

TEST_F(LoggedSubscriptionBehavior, AGoneClientIsLoggedAndNothingChanges) {
  connect();
  const auto subscription = withBehavior();
  subscription->setLastUpdated(kPast);
  client.die();
  subscription->updateWithData(number(1));
  EXPECT_THAT(log.take(),
              ElementsAre(debugLine("updateWithData: n"), debugLine("updateWithData: n behavior"),
                          errorLine("behavior updateWithData: connection is nil")));
  subscription->updateWithError(Error("d", 1));
  EXPECT_THAT(log.take(), ElementsAre(debugLine("updateWithError: n"),
                                      debugLine("SubscriberBehavior:updateWithError: n"),
                                      errorLine("behavior updateWithError: connection is nil")));
  EXPECT_EQ(subscription->lastUpdated(), kPast);
}

TEST_F(SubscriptionBehavior, UpdatesDuringTheClientsCleanUpAreNotLogged) {
  connect();
  const auto behavior = withBehavior();
  const auto own = plain();
  const auto cleanUpHasBegun = std::make_shared<bool>(false);
  behavior->setCleanUp(cleanUpHasBegun);
  own->setCleanUp(cleanUpHasBegun);
  client.die();
  for (const auto& subscription : {behavior, own}) {
    subscription->updateWithData(number(1));
    subscription->updateWithError(Error("d", 1));
  }
  EXPECT_EQ(log.take().size(), 4u);
  *cleanUpHasBegun = true;
  for (const auto& subscription : {behavior, own}) {
    subscription->updateWithData(number(1));
    subscription->updateWithError(Error("d", 1));
  }
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_FALSE(behavior->lastUpdated());
}

TEST_F(LoggedSubscriptionBehavior, AGoneSubscriptionCountsAsAGoneClient) {
  const auto behavior = std::make_shared<SubscriberBehavior>();
  behavior->addTarget(plain());
  EXPECT_EQ(behavior->subscriber(), nullptr);
  behavior->updateWithData(number(1));
  behavior->updateWithError(Error("d", 1));
  behavior->connectionIsInvalid();
  EXPECT_THAT(log.lines(),
              ElementsAre(debugLine("updateWithData: (null) behavior"),
                          errorLine("behavior updateWithData: connection is nil"),
                          debugLine("SubscriberBehavior:updateWithError: (null)"),
                          errorLine("behavior updateWithError: connection is nil"),
                          debugLine("behavior connectionIsInvalid: unsubscribing from (null)")));
}

TEST_F(SubscriptionBehavior, AFailureToSendIsLoggedLaterAndChangesNothing) {
  connectWithoutExports();
  const auto item = KLNPublishedObject::initWithName("n");
  const auto subscription = withBehavior("before");
  item->addSubscriber(subscription);
  subscription->setTarget(item);
  subscription->updateWithData(number(1));
  EXPECT_TRUE(subscription->lastUpdated());
  log.take();
  subscription->setName("after");
  executor.runAll();
  expectSendError("behavior updateWithData: (after) connection returned an error ");
  const Error error("d", 3);
  subscription->setLastUpdated(kPast);
  subscription->updateWithError(error);
  EXPECT_GT(subscription->lastUpdated(), kPast);
  log.take();
  executor.runAll();
  expectSendError("behavior updateWithError: (after) connection returned an error ",
                  " when sending error " + error.description());
  EXPECT_TRUE(item->subscribers()->contains(subscription));
  EXPECT_EQ(subscription->target(), item);
}

TEST_F(SubscriptionBehavior, AQueuedErrorHandlerOwnsTheSubscription) {
  connectWithoutExports();
  std::weak_ptr<KLNSubscriptionObject> watched;
  {
    const auto subscription = withBehavior();
    watched = subscription;
    subscription->updateWithData(number(1));
  }
  EXPECT_FALSE(watched.expired());
  executor.runAll();
  EXPECT_TRUE(watched.expired());
}

TEST_F(LoggedSubscriptionBehavior, LeavesItsItemOnceAndSendsNothing) {
  connect();
  const auto item = KLNPublishedObject::initWithName("n");
  const auto subscription = withBehavior();
  item->addSubscriber(subscription);
  subscription->setTarget(item);
  subscription->connectionIsInvalid();
  EXPECT_TRUE(item->subscribers()->empty());
  EXPECT_EQ(subscription->target(), nullptr);
  EXPECT_THAT(log.take(),
              ElementsAre(debugLine("behavior connectionIsInvalid: unsubscribing from n")));
  // The second time there is no target: nothing but the line.
  item->addSubscriber(subscription);
  subscription->connectionIsInvalid();
  EXPECT_THAT(log.take(),
              ElementsAre(debugLine("behavior connectionIsInvalid: unsubscribing from n")));
  EXPECT_TRUE(item->subscribers()->contains(subscription));
  EXPECT_THAT(client.received(), IsEmpty());
}

}  // namespace
}  // namespace keel
