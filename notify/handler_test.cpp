// SPDX-License-Identifier: Apache-2.0
#include <limits>
#include <stdexcept>

#include "auth/auth_service.h"
#include "modules/module_manager.h"
#include "notify/notify_fixture.h"
#include "platform/foundation/exception.h"

namespace keel {
namespace {

using Kind = Received::Kind;

std::string shortForm(const Received& received) {
  switch (received.kind) {
    case Kind::update:
      return "update " + std::string(received.name.view()) + " " + received.item.value().description() +
             (received.error ? " error " + std::to_string(received.error.code()) : "");
    case Kind::reply:
      return "reply " + std::to_string(received.requestId);
    case Kind::failure:
      return "failure " + std::to_string(received.requestId);
    case Kind::goodbye:
      return "goodbye " + received.text;
  }
  return "?";
}

class NotificationHandler : public NotifyTest {
 protected:
  static Error publishError(const NotifyClient& client, std::uint64_t id) {
    const auto results = client.resultsOf<&NotifyProxy::publishItem>(id);
    EXPECT_TRUE(results) << "request " << id << " is not answered";
    return results ? std::get<0>(*results) : Error("no answer", 0);
  }
  // The dictionary slot of the reply is always null.
  static Error subscribeError(const NotifyClient& client, std::uint64_t id) {
    const auto results = client.resultsOf<&NotifyProxy::subscribeTo>(id);
    EXPECT_TRUE(results) << "request " << id << " is not answered";
    if (!results) return Error("no answer", 0);
    EXPECT_TRUE(std::get<0>(*results).isNull());
    return std::get<1>(*results);
  }
  static std::vector<std::string> receivedBy(const NotifyClient& client) {
    std::vector<std::string> all;
    for (const Received& each : client.received()) all.push_back(shortForm(each));
    return all;
  }
  // Runs a request that must succeed and forgets what it caused.
  void mustPublish(NotifyClient& client, Name name, int value) {
    const auto id = publish(client, std::move(name), number(value));
    executor.runAll();
    EXPECT_FALSE(publishError(client, id));
    forget();
  }
  void mustSubscribe(NotifyClient& client, Name name) {
    const auto id = subscribe(client, std::move(name));
    executor.runAll();
    EXPECT_FALSE(subscribeError(client, id));
    forget();
  }
  void forget() {
    one.take();
    other.take();
    log.take();
  }
  std::shared_ptr<KLNPublishedObject> entry(const Name& name) const {
    const auto found = service->published().find(name);
    return found == service->published().end() ? nullptr : found->second;
  }

  NotifyClient one{executor, FakeClient::identity(11, 3)};
  NotifyClient other{executor, FakeClient::identity(12, 4)};
};

const Error kDuplicate(KLNErrorDomain, 9);
const Error kNotOwner(KLNErrorDomain, 10);
const Error kNotFound(KLNErrorDomain, 11);
const Error kNilName(KLNErrorDomain, 12);
const Error kRequestFailed(KLNErrorDomain, 13);

TEST_F(NotificationHandler, BeginsWithEmptyTables) {
  const auto handler = std::make_shared<KLNNotificationHandler>();
  EXPECT_TRUE(handler->publishedItems().empty());
  EXPECT_TRUE(handler->subscriptions().empty());
  EXPECT_EQ(handler->xpcConnection(), nullptr);
}

TEST_F(NotificationHandler, PublishReachesTheRegistryAndItsTable) {
  const std::string from = one.connection()->description();
  const auto id = publish(one, "n", number(1));
  EXPECT_FALSE(one.isAnswered(id));
  EXPECT_EQ(entry("n"), nullptr);
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotificationHandler we have a publish request: n from " + from)));
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  ASSERT_NE(entry("n"), nullptr);
  EXPECT_EQ(entry("n")->data(), number(1));
  EXPECT_EQ(entry("n")->owner(), one.connection());
  EXPECT_EQ(one.handler()->publishedItems().at("n"), entry("n"));
  EXPECT_EQ(lines().size(), 1u);
}

TEST_F(NotificationHandler, PublishWithoutANameIsAnsweredBeforeAnythingIsQueued) {
  const auto id = publish(one, nullptr, number(1));
  EXPECT_EQ(publishError(one, id), kNilName);
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotificationHandler we have a publish request: (null) from " +
                                             one.connection()->description())));
}

TEST_F(NotificationHandler, PublishWithoutDataSucceeds) {
  const auto id = publish(one, "n", nullptr);
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_TRUE(entry("n")->data().isNull());
}

TEST_F(NotificationHandler, PublishingOnesOwnNameAgainIsRefused) {
  mustPublish(one, "n", 1);
  const auto id = publish(one, "n", number(2));
  executor.runAll();
  EXPECT_EQ(publishError(one, id), kDuplicate);
  EXPECT_TRUE(publishError(one, id).userInfo().isNull());
  EXPECT_EQ(lines().back(), errorLine("NotificationHandler we don't allow duplicate publications n"));
  EXPECT_EQ(entry("n")->data(), number(1));
}

TEST_F(NotificationHandler, PublishingTheNameOfAnotherIsRefusedByTheRegistry) {
  mustPublish(one, "n", 1);
  const auto id = publish(other, "n", number(2));
  executor.runAll();
  const Error error = publishError(other, id);
  EXPECT_EQ(error.code(), 9);
  EXPECT_EQ(error.userInfo().value(), Value::map({{"NSLocalizedDescription", "the key n has already been published"}}));
  EXPECT_TRUE(other.handler()->publishedItems().empty());
  EXPECT_EQ(lines().size(), 1u);  // the request
}

TEST_F(NotificationHandler, AfterATakeOverTheTableHoldsThePlaceholder) {
  mustSubscribe(other, "n");
  const auto placeholder = entry("n");
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_EQ(one.handler()->publishedItems().at("n"), placeholder);
  EXPECT_THAT(receivedBy(other), ElementsAre("update n {\"number\": 1}"));
  // What it updates is what the others follow.
  update(one, "n", number(2));
  executor.runAll();
  EXPECT_THAT(receivedBy(other), ElementsAre("update n {\"number\": 1}", "update n {\"number\": 2}"));
}

TEST_F(NotificationHandler, AnItemThatCannotBeMadeIsAFailure) {
  service->makeItem = [] { return nullptr; };
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  EXPECT_EQ(publishError(one, id), kRequestFailed);
  EXPECT_TRUE(publishError(one, id).userInfo().isNull());
  EXPECT_TRUE(one.handler()->publishedItems().empty());
  EXPECT_EQ(lines().size(), 1u);
}

// The user info of an answer to an exception.
void expectException(const Error& error, std::string_view nameKey, std::string_view exceptionName, std::string_view reason) {
  EXPECT_EQ(error.domain(), String(KLNErrorDomain));
  EXPECT_EQ(error.code(), 13);
  const Value userInfo = error.userInfo().value();
  const auto* members = userInfo.as<Value::Map>();
  ASSERT_NE(members, nullptr);
  ASSERT_EQ(members->size(), 3u);
  EXPECT_EQ((*members)[0].key, nameKey);
  EXPECT_EQ((*members)[0].value, Value("n"));
  EXPECT_EQ((*members)[1].key, "exception");
  EXPECT_EQ((*members)[1].value, Value::map({{"name", exceptionName}, {"reason", reason}}));
  EXPECT_EQ((*members)[2].key, "backtrace");
  const auto* backtrace = (*members)[2].value.as<Value::List>();
  ASSERT_NE(backtrace, nullptr);
  ASSERT_FALSE(backtrace->empty());
  for (const Value& symbol : *backtrace) EXPECT_NE(symbol.as<std::string>(), nullptr);
}

TEST_F(NotificationHandler, AnExceptionWhilePublishingIsAnswered) {
  const Exception raised(NSRangeException, "too far");
  service->makePublishBehavior = [&](std::uint64_t, std::int64_t) -> std::shared_ptr<KLNPublishBehavior> { throw raised; };
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  const Error error = publishError(one, id);
  expectException(error, "publishName", "NSRangeException", "too far");
  const Value userInfo = error.userInfo().value();
  EXPECT_EQ(userInfo.find("backtrace")->as<Value::List>()->size(), raised.callStackSymbols().size());
  EXPECT_EQ(lines().back(), errorLine("NotificationHandler: publishItem: received an exception publishing n"));
  EXPECT_TRUE(one.handler()->publishedItems().empty());
  // The connection goes on.
  service->makePublishBehavior = nullptr;
  mustPublish(one, "n", 1);
}

TEST_F(NotificationHandler, AStandardExceptionWhilePublishingIsAnsweredToo) {
  service->makeItem = []() -> std::shared_ptr<KLNPublishedObject> { throw std::runtime_error("no luck"); };
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  expectException(publishError(one, id), "publishName", "std::exception", "no luck");
  EXPECT_EQ(lines().back(), errorLine("NotificationHandler: publishItem: received an exception publishing n"));
}

TEST_F(NotificationHandler, AnExceptionWhileSubscribingIsAnswered) {
  service->makeSubscriberBehavior = [](std::uint64_t, std::int64_t) -> std::shared_ptr<SubscriberBehavior> {
    throw Exception(NSGenericException, "why not");
  };
  const auto id = subscribe(one, "n");
  executor.runAll();
  expectException(subscribeError(one, id), "subscriptionName", "NSGenericException", "why not");
  EXPECT_EQ(lines().back(),
            errorLine("NotificationHandler: subscribeTo: received an exception processing a subscription request for n"));
  EXPECT_TRUE(one.handler()->subscriptions().empty());
}

TEST_F(NotificationHandler, AStandardExceptionWhileSubscribingIsAnsweredToo) {
  service->makeSubscription = []() -> std::shared_ptr<KLNSubscriptionObject> { throw std::runtime_error("no luck"); };
  const auto id = subscribe(one, "n");
  executor.runAll();
  expectException(subscribeError(one, id), "subscriptionName", "std::exception", "no luck");
}

TEST_F(NotificationHandler, SubscribeReachesTheRegistryAndItsTable) {
  const auto id = subscribe(one, "n");
  EXPECT_FALSE(one.isAnswered(id));
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotificationHandler we have a subscription request: n")));
  executor.runAll();
  EXPECT_FALSE(subscribeError(one, id));
  const auto subscription = one.handler()->subscriptions().at("n");
  EXPECT_EQ(subscription->owner(), one.connection());
  EXPECT_TRUE(entry("n")->subscribers()->contains(subscription));
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotificationHandler we have a subscription request: n"),
                                   debugLine("NotificationHandler subscribing n with " + addressOf(subscription.get()))));
}

TEST_F(NotificationHandler, SubscribeWithoutANameIsAnsweredBeforeAnythingIsQueued) {
  const auto id = subscribe(one, nullptr);
  EXPECT_EQ(subscribeError(one, id), kNilName);
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotificationHandler we have a subscription request: (null)")));
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
  EXPECT_EQ(lines().back(), standardLine("NotificationHandler: subscribeTo: already subscribed to n subscription " +
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

TEST_F(NotificationHandler, ASubscriptionThatCannotBeMadeIsNoError) {
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
  const auto published = publish(one, "n", number(1), std::numeric_limits<std::uint64_t>::max(), -1);
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
  EXPECT_THAT(receivedBy(other), ElementsAre("reply " + std::to_string(id), "update n {\"number\": 1}"));
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

TEST_F(NotificationHandler, RepliesKeepTheOrderOfTheRequestsButImmediateOnesOvertake) {
  const auto first = publish(one, "n", number(1));
  const auto second = subscribe(one, "n");
  const auto atOnce = publish(one, nullptr, number(1));
  const auto third = update(one, "n", number(2));
  executor.runAll();
  EXPECT_THAT(receivedBy(one),
              ElementsAre("reply " + std::to_string(atOnce), "reply " + std::to_string(first), "reply " + std::to_string(second),
                          "update n {\"number\": 2}", "reply " + std::to_string(third), "update n {\"number\": 2}"));
}

TEST_F(NotificationHandler, UnsubscribeDetachesAndForgets) {
  mustPublish(one, "n", 1);
  mustSubscribe(other, "n");
  const auto subscription = other.handler()->subscriptions().at("n");
  unsubscribe(other, "n");
  EXPECT_THAT(lines(), ElementsAre(debugLine("unsubscribeFrom n")));
  EXPECT_EQ(other.handler()->subscriptions().size(), 1u);
  executor.runAll();
  EXPECT_THAT(lines(), ElementsAre(debugLine("unsubscribeFrom n"),
                                   debugLine("unsubscribeFrom n subscription " + addressOf(subscription.get()))));
  EXPECT_TRUE(other.handler()->subscriptions().empty());
  EXPECT_TRUE(entry("n")->subscribers()->empty());
  update(one, "n", number(2));
  executor.runAll();
  EXPECT_THAT(receivedBy(other), IsEmpty());
  mustSubscribe(other, "n");
}

TEST_F(NotificationHandler, UnsubscribeFromAnUnknownNameIsOnlyLogged) {
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

TEST_F(NotificationHandler, UnsubscribeForgetsWhateverTheRegistryAnswers) {
  mustSubscribe(one, "n");
  service->published().clear();
  unsubscribe(one, "n");
  executor.runAll();
  EXPECT_TRUE(one.handler()->subscriptions().empty());
  for (const LogLine& line : lines()) EXPECT_EQ(line.level, LogLevel::debug) << line;
}

TEST_F(NotificationHandler, UnsubscribeWorksThoughTheClientLeavesBeforeItRuns) {
  mustSubscribe(one, "n");
  unsubscribe(one, "n");
  one.die();
  executor.runAll();
  EXPECT_TRUE(entry("n")->subscribers()->empty());
}

TEST_F(NotificationHandler, UpdateReachesItemAndSubscribers) {
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
              errorLine("updatePublishedItem: item : " + (name.isNull() ? "(null)" : std::string(name.view())) + " not found"));
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

TEST_F(NotificationHandler, RemoveDeletesAndForgets) {
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

TEST_F(NotificationHandler, RemoveOfAFollowedItemTellsNobodyAndForgets) {
  mustPublish(one, "n", 1);
  mustSubscribe(other, "n");
  const auto id = remove(one, "n");
  executor.runAll();
  EXPECT_FALSE(publishError(one, id));
  EXPECT_TRUE(one.handler()->publishedItems().empty());
  EXPECT_EQ(entry("n")->delegate(), nullptr);
  EXPECT_THAT(receivedBy(other), IsEmpty());
}

TEST_F(NotificationHandler, RemoveOfWhatThisConnectionDoesNotPublishIsNotFound) {
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

TEST_F(NotificationHandler, AuthCheckAsksTheTableAndPassesBothResultsOn) {
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

TEST_F(NotificationHandler, ModuleTableIsAnsweredAtOnceAsItStands) {
  const auto manager = std::make_shared<KLNModuleManager>();
  const KLNModuleManager::Override defaultManager(manager);
  const auto empty = one.request<&NotifyProxy::getModuleTableWithHandler>();
  EXPECT_EQ(std::get<0>(*one.resultsOf<&NotifyProxy::getModuleTableWithHandler>(empty)).value(), Value::map({}));
  manager->moduleTable().set("keel_mail", "com.vantor.keeld.mail");
  const auto full = one.request<&NotifyProxy::getModuleTableWithHandler>();
  EXPECT_EQ(std::get<0>(*one.resultsOf<&NotifyProxy::getModuleTableWithHandler>(full)).value(),
            Value::map({{"keel_mail", "com.vantor.keeld.mail"}}));
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(NotificationHandler, InterruptionIsLoggedAndChangesNothing) {
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

TEST_F(NotificationHandler, ConnectionTextsOfAGoneConnectionAreZeros) {
  const auto handler = std::make_shared<KLNNotificationHandler>();
  handler->connectionInterupted();
  handler->connectionInvalidated();
  EXPECT_THAT(lines(), ElementsAre(debugLine("NotifyService connection from (0)0 interrupted"),
                                   debugLine("NotifyService  connection from (0)0 invalidated")));
  Error error;
  handler->publishItem(nullptr, nullptr, 0, 0, xpc::Reply<Error>::to([&](Error given) { error = given; }));
  EXPECT_EQ(error, kNilName);
  EXPECT_EQ(lines().back(), debugLine("NotificationHandler we have a publish request: (null) from (null)"));
}

TEST_F(NotificationHandler, CleanUpUndoesSubscriptionsBeforePublications) {
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
              ::testing::UnorderedElementsAre(debugLine("behavior connectionIsInvalid: unsubscribing from n"),
                                              debugLine("behavior connectionIsInvalid: unsubscribing from m")));
  EXPECT_EQ(all[3], debugLine("NotifyService unpublishing"));
  // The error goes to the one subscriber that is left, who drops it.
  EXPECT_EQ(all[4], debugLine("updateWithError: n"));
  EXPECT_EQ(all[5], debugLine("SubscriberBehavior:updateWithError: n"));
  EXPECT_EQ(all[6], debugLine("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected(8)"));

  EXPECT_TRUE(handler->subscriptions().empty());
  EXPECT_TRUE(handler->publishedItems().empty());
  EXPECT_THAT(receivedBy(other), IsEmpty());
  EXPECT_EQ(entry("n"), item);
  EXPECT_EQ(item->delegate(), nullptr);
  EXPECT_EQ(item->data(), number(1));
  EXPECT_EQ(item->subscribers()->count(), 1u);
  EXPECT_TRUE(entry("m")->subscribers()->empty());
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

TEST_F(NotificationHandler, ASubscriberThatIsGoneHoldsUpNobody) {
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
  EXPECT_THAT(lines(), ::testing::Contains(errorLine("behavior updateWithData: connection is nil")));
  EXPECT_EQ(entry("n")->subscribers()->count(), 1u);
}

TEST_F(NotificationHandler, IsFreedOnceConnectionAndQueueHaveLetGo) {
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
