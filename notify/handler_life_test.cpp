// SPDX-License-Identifier: Apache-2.0
#include "auth/auth_service.h"
#include "modules/module_manager.h"
#include "notify/handler_fixture.h"

namespace keel {
namespace {

TEST_F(NotificationHandler, BeginsWithEmptyTables) {
  const auto handler = std::make_shared<KLNNotificationHandler>();
  EXPECT_TRUE(handler->publishedItems().empty());
  EXPECT_TRUE(handler->subscriptions().empty());
  EXPECT_EQ(handler->xpcConnection(), nullptr);
}

TEST_F(NotificationHandler, UnsubscribeRunsAfterTheClientIsGone) {
  mustSubscribe(one, "n");
  unsubscribe(one, "n");
  one.die();
  executor.runAll();
  EXPECT_TRUE(entry("n")->subscribers()->empty());
}

TEST_F(LoggedNotificationHandler, AuthCheckRepliesWithBothResultsOfTheAuthService) {
  const auto auth = std::make_shared<KLNAuthService>(executor);
  const KLNAuthService::Override defaultAuth(auth);
  auth->addUser("alice", -5);
  const auto yes = one.request<&NotifyProxy::authCheckForUser>("alice", -5);
  const auto no = one.request<&NotifyProxy::authCheckForUser>("bob", -5);
  EXPECT_FALSE(one.isAnswered(yes));
  executor.runAll();
  EXPECT_EQ(one.resultsOf<&NotifyProxy::authCheckForUser>(yes), std::tuple(true, Error()));
  EXPECT_EQ(one.resultsOf<&NotifyProxy::authCheckForUser>(no), std::tuple(false, Error()));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(NotificationHandler, AuthCheckDoesNotUseTheInputQueue) {
  ManualExecutor strand;
  const KLNAuthService::Override defaultAuth(std::make_shared<KLNAuthService>(strand));
  one.request<&NotifyProxy::authCheckForUser>("alice", 1);
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_EQ(strand.scheduledCount(), 1u);
  strand.runAll();
  EXPECT_EQ(one.received().size(), 1u);
}

TEST_F(LoggedNotificationHandler, ModuleTableIsAnsweredAtOnceAsItStands) {
  const auto manager = std::make_shared<KLNModuleManager>();
  const KLNModuleManager::Override defaultManager(manager);
  const auto empty = one.request<&NotifyProxy::getModuleTableWithHandler>();
  EXPECT_EQ(std::get<0>(*one.resultsOf<&NotifyProxy::getModuleTableWithHandler>(empty)).value(),
            Value::map({}));
  manager->moduleTable().set("keel_mail", "com.vantor.keeld.mail");
  const auto full = one.request<&NotifyProxy::getModuleTableWithHandler>();
  EXPECT_EQ(std::get<0>(*one.resultsOf<&NotifyProxy::getModuleTableWithHandler>(full)).value(),
            Value::map({{"keel_mail", "com.vantor.keeld.mail"}}));
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LoggedNotificationHandler, InterruptionIsLoggedAndChangesNothing) {
  mustPublish(one, "n", 1);
  mustSubscribe(one, "m");
  one.sendNonsense();
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotifyService connection from (11)3 interrupted")));
  executor.runAll();
  EXPECT_EQ(lines().size(), 1u);
  EXPECT_EQ(one.handler()->publishedItems().size(), 1u);
  EXPECT_EQ(one.handler()->subscriptions().size(), 1u);
  EXPECT_NE(entry("n")->delegate(), nullptr);
}

TEST_F(LoggedNotificationHandler, AGoneConnectionIsLoggedWithZeros) {
  const auto handler = std::make_shared<KLNNotificationHandler>();
  handler->connectionInterupted();
  handler->connectionInvalidated();
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotifyService connection from (0)0 interrupted"),
                                   debugLine("NotifyService  connection from (0)0 invalidated")));
  Error error;
  handler->publishItem(nullptr, nullptr, 0, 0,
                       xpc::Reply<Error>::to([&](Error given) { error = given; }));
  EXPECT_EQ(error, kNilName);
  EXPECT_EQ(lines().back(),
            debugLine("NotificationHandler we have a publish request: (null) from (null)"));
}

TEST_F(LoggedNotificationHandler, CleanUpUndoesSubscriptionsBeforePublications) {
  mustPublish(one, "n", 1);
  mustSubscribe(one, "n");
  mustSubscribe(one, "m");
  mustSubscribe(other, "n");
  const auto handler = one.handler();
  const auto item = entry("n");
  one.die();
  // Nothing has changed yet.
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotifyService  connection from (11)3 invalidated")));
  EXPECT_EQ(handler->subscriptions().size(), 2u);
  log.take();
  executor.runAll();

  const auto all = lines();
  ASSERT_EQ(all.size(), 7u);
  EXPECT_EQ(all[0], debugLine("NotifyService unsubscribing"));
  EXPECT_THAT(std::vector(all.begin() + 1, all.begin() + 3),
              ::testing::UnorderedElementsAre(
                  debugLine("behavior connectionIsInvalid: unsubscribing from n"),
                  debugLine("behavior connectionIsInvalid: unsubscribing from m")));
  EXPECT_EQ(all[3], debugLine("NotifyService unpublishing"));
  // The error goes to the one remaining subscription, which drops it.
  EXPECT_EQ(all[4], debugLine("updateWithError: n"));
  EXPECT_EQ(all[5], debugLine("SubscriberBehavior:updateWithError: n"));
  EXPECT_EQ(all[6],
            debugLine("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected(8)"));

  EXPECT_TRUE(handler->subscriptions().empty());
  EXPECT_TRUE(handler->publishedItems().empty());
  EXPECT_THAT(receivedBy(other), IsEmpty());
  EXPECT_EQ(entry("n"), item);
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_EQ(item->data(), number(1));
  EXPECT_EQ(item->subscribers()->count(), 1u);
  EXPECT_TRUE(entry("m")->subscribers()->empty());
}

// A client with a given number of publications and subscriptions whose connection ends.
class NotificationHandlerCleanUp : public NotificationHandler {
 protected:
  explicit NotificationHandlerCleanUp(LogLevel least = LogLevel::standard)
      : NotificationHandler(least) {}

  static constexpr std::size_t kStep = KLNNotificationHandler::kCleanUpStep;
  static Name nameOf(std::size_t number) { return Name("name " + std::to_string(number)); }

  void loseClient(std::size_t publicationCount, std::size_t subscriptionCount) {
    auto client = std::make_unique<NotifyClient>(executor, FakeClient::identity(13));
    for (std::size_t i = 0; i < publicationCount; ++i) publish(*client, nameOf(i), number(1));
    for (std::size_t i = 0; i < subscriptionCount; ++i) subscribe(*client, nameOf(i));
    executor.runAll();
    handler = client->handler();
    client->die();
    clearRecords();
  }
  void turn(std::size_t subscriptionsLeft, std::size_t publicationsLeft) {
    executor.runOne();
    EXPECT_EQ(handler->subscriptions().size(), subscriptionsLeft);
    EXPECT_EQ(handler->publishedItems().size(), publicationsLeft);
  }
  std::vector<std::string> stages() {
    std::vector<std::string> found;
    for (const LogLine& line : log.take()) {
      if (line.text.starts_with("NotifyService ")) found.push_back(line.text);
    }
    return found;
  }
  std::shared_ptr<KLNNotificationHandler> handler;
};

class LoggedNotificationHandlerCleanUp : public NotificationHandlerCleanUp {
 protected:
  LoggedNotificationHandlerCleanUp() : NotificationHandlerCleanUp(LogLevel::debug) {}
};

TEST_F(NotificationHandlerCleanUp, OneStepIsOneBlock) {
  loseClient(kStep / 2, kStep / 2);
  turn(0, 0);
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(NotificationHandlerCleanUp, SubscriptionsAreGoneFromTheFirstStepOn) {
  for (std::size_t i = 0; i < 2 * kStep; ++i) mustPublish(one, nameOf(i), 1);
  loseClient(0, 2 * kStep);
  turn(kStep, 0);
  for (std::size_t i = 0; i < 2 * kStep; ++i) {
    entry(nameOf(i))->updateWithData(number(2));
    entry(nameOf(i))->updateWithError(Error("d", 1));
  }
  EXPECT_THAT(lines(), IsEmpty());
  turn(0, 0);
}

TEST_F(NotificationHandlerCleanUp, UpdatesBeforeTheFirstStepAreLogged) {
  mustPublish(one, nameOf(0), 1);
  loseClient(0, 1);
  entry(nameOf(0))->updateWithData(number(2));
  EXPECT_THAT(lines(), ElementsAre(errorLine("behavior updateWithData: connection is nil")));
}

TEST_F(LoggedNotificationHandlerCleanUp, MoreThanAStepTakesSeveralBlocks) {
  loseClient(kStep, kStep + 1);
  turn(1, kStep);
  EXPECT_THAT(stages(), ElementsAre("NotifyService unsubscribing"));
  turn(0, 1);
  EXPECT_THAT(stages(), ElementsAre("NotifyService unpublishing"));
  turn(0, 0);
  EXPECT_THAT(stages(), IsEmpty());
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(LoggedNotificationHandlerCleanUp, EachStageIsLoggedOnce) {
  loseClient(1, kStep);
  turn(0, 1);
  turn(0, 0);
  EXPECT_THAT(stages(), ElementsAre("NotifyService unsubscribing", "NotifyService unpublishing"));
}

TEST_F(NotificationHandlerCleanUp, OtherRequestsRunBetweenSteps) {
  loseClient(kStep + 1, 0);
  executor.runOne();
  ASSERT_EQ(handler->publishedItems().size(), 1u);
  const Name left = handler->publishedItems().begin()->first;
  const Name freed = left == nameOf(0) ? nameOf(1) : nameOf(0);
  auto taken = service->newPublishedObjectWith(number(2), freed, 0, 0, other.connection());
  EXPECT_TRUE(service->publish(taken, nullptr));
  executor.runAll();
  EXPECT_EQ(entry(left)->delegate(), nullptr);
  // What another client has taken over meanwhile stays its own.
  EXPECT_NE(entry(freed)->delegate(), nullptr);
  EXPECT_EQ(entry(freed)->owner(), other.connection());
}

TEST_F(NotificationHandlerCleanUp, NamesNotYetCleanedUpCanBePublished) {
  loseClient(kStep + 2, 0);
  executor.runOne();
  ASSERT_EQ(handler->publishedItems().size(), 2u);
  const Name first = handler->publishedItems().begin()->first;
  const Name second = std::next(handler->publishedItems().begin())->first;
  auto taken = service->newPublishedObjectWith(number(2), first, 0, 0, other.connection());
  EXPECT_TRUE(service->publish(taken, nullptr));
  EXPECT_TRUE(service->publishItem(number(3), second, 0, 0, other.connection(), nullptr));
  executor.runAll();
  for (const Name& name : {first, second}) {
    EXPECT_NE(entry(name)->delegate(), nullptr);
    EXPECT_EQ(entry(name)->owner(), other.connection());
  }
}

TEST_F(NotificationHandlerCleanUp, AFinishedCleanUpFreesNoFurtherNames) {
  loseClient(kStep + 1, 0);
  executor.runAll();
  mustPublish(other, "n", 1);
  auto again = service->newPublishedObjectWith(number(2), "n", 0, 0, one.connection());
  Error error;
  EXPECT_FALSE(service->publish(again, &error));
  EXPECT_EQ(error.code(), kDuplicate.code());
}

TEST_F(NotificationHandlerCleanUp, NamesWithManySubscribersWeighMore) {
  std::vector<std::unique_ptr<NotifyClient>> followers;
  for (std::size_t i = 0; i < 16 * (kStep - 1); ++i) {
    followers.push_back(std::make_unique<NotifyClient>(executor));
    subscribe(*followers.back(), nameOf(0));
    subscribe(*followers.back(), nameOf(1));
  }
  loseClient(2, 0);
  turn(0, 1);
  turn(0, 0);
}

TEST_F(NotificationHandlerCleanUp, SeveralClientsAlternate) {
  std::vector<std::shared_ptr<KLNNotificationHandler>> handlers;
  std::vector<std::unique_ptr<NotifyClient>> clients;
  for (int i = 0; i < 2; ++i) {
    auto& client = *clients.emplace_back(std::make_unique<NotifyClient>(executor));
    for (std::size_t name = 0; name < 3 * kStep; ++name) subscribe(client, nameOf(name));
    handlers.push_back(client.handler());
  }
  executor.runAll();
  for (const auto& client : clients) client->die();
  const auto left = [&handlers] {
    return handlers[0]->subscriptions().size() + handlers[1]->subscriptions().size();
  };
  // The first step of each runs in queue order.
  executor.runOne();
  EXPECT_EQ(left(), 4 * kStep);
  executor.runOne();
  EXPECT_EQ(left(), 3 * kStep);
  executor.runOne();
  EXPECT_EQ(left(), 2 * kStep);
  EXPECT_EQ(handlers[0]->subscriptions().size(), kStep);
  executor.runAll();
  EXPECT_EQ(left(), 0u);
}

TEST_F(NotificationHandlerCleanUp, HoldsTheHandlerUntilItIsDone) {
  loseClient(2 * kStep, 0);
  const std::weak_ptr<KLNNotificationHandler> held = std::exchange(handler, nullptr);
  executor.runOne();
  EXPECT_FALSE(held.expired());
  executor.runAll();
  EXPECT_TRUE(held.expired());
}

TEST_F(NotificationHandler, TheNextPublisherReachesTheSubscribersOfALostOne) {
  mustSubscribe(other, "n");
  mustPublish(one, "n", 1);
  one.die();
  executor.runAll();
  NotifyClient next(executor);
  other.take();
  const auto id = publish(next, "n", number(2));
  executor.runAll();
  EXPECT_FALSE(publishError(next, id));
  EXPECT_THAT(receivedBy(other), ElementsAre("update n {\"number\": 2}"));
}

TEST_F(NotificationHandler, QueuedRequestsOfAGoneClientStillRunBeforeItsCleanUp) {
  const auto handler = one.handler();
  publish(one, "n", number(1));
  subscribe(one, "m");
  one.die();
  executor.runAll();
  ASSERT_NE(entry("n"), nullptr);
  EXPECT_EQ(entry("n")->delegate(), nullptr);
  EXPECT_EQ(entry("n")->data(), number(1));
  EXPECT_TRUE(entry("m")->subscribers()->empty());
  EXPECT_TRUE(handler->publishedItems().empty());
  EXPECT_TRUE(handler->subscriptions().empty());
}

TEST_F(NotificationHandler, AGoneSubscriberDoesNotAffectOthers) {
  mustPublish(one, "n", 1);
  mustSubscribe(other, "n");
  NotifyClient third(executor);
  subscribe(third, "n");
  executor.runAll();
  third.take();
  log.take();
  // The update runs after the connection is gone and before its clean-up does.
  update(one, "n", number(2));
  other.die();
  executor.runAll();
  EXPECT_THAT(receivedBy(third), ElementsAre("update n {\"number\": 2}"));
  EXPECT_THAT(lines(),
              ::testing::Contains(errorLine("behavior updateWithData: connection is nil")));
  EXPECT_EQ(entry("n")->subscribers()->count(), 1u);
}

TEST_F(NotificationHandler, IsDestroyedOnceConnectionAndQueueRelease) {
  mustPublish(one, "n", 1);
  const std::weak_ptr<KLNNotificationHandler> handler = one.handler();
  const std::weak_ptr<xpc::Connection> connection = one.connection();
  EXPECT_FALSE(handler.expired());
  one.die();
  EXPECT_TRUE(connection.expired());
  EXPECT_FALSE(handler.expired());
  executor.runAll();
  EXPECT_TRUE(handler.expired());
}

TEST_F(NotificationHandler, DoesNotHoldItsConnection) {
  const auto handler = std::make_shared<KLNNotificationHandler>();
  FakeClient client(executor);
  handler->setXpcConnection(client.connection());
  EXPECT_EQ(handler->xpcConnection(), client.connection());
  client.die();
  EXPECT_EQ(handler->xpcConnection(), nullptr);
}

TEST_F(NotificationHandler, AsksForTheDefaultServiceAnewOnEachRequest) {
  const auto next = std::make_shared<KLNNotificationService>(executor);
  mustPublish(one, "n", 1);
  const KLNNotificationService::Override nextService(next);
  publish(one, "m", number(1));
  executor.runAll();
  EXPECT_EQ(next->published().count("m"), 1u);
  EXPECT_EQ(service->published().count("m"), 0u);
}

TEST_F(NotificationHandler, EachConnectionHasItsOwnTables) {
  mustPublish(one, "n", 1);
  mustSubscribe(other, "n");
  EXPECT_TRUE(one.handler()->subscriptions().empty());
  EXPECT_TRUE(other.handler()->publishedItems().empty());
}

}  // namespace
}  // namespace keel
