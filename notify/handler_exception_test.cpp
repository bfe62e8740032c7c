// SPDX-License-Identifier: Apache-2.0
#include <stdexcept>

#include "notify/handler_fixture.h"
#include "runtime/foundation/exception.h"

namespace keel {
namespace {

// Checks the user info of an exception's error.
void expectException(const Error& error, std::string_view nameKey, std::string_view exceptionName,
                     std::string_view reason) {
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
  service->makePublishBehavior =
      [&](std::uint64_t, std::int64_t) -> std::shared_ptr<KLNPublishBehavior> { throw raised; };
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  const Error error = publishError(one, id);
  expectException(error, "publishName", "NSRangeException", "too far");
  const Value userInfo = error.userInfo().value();
  EXPECT_EQ(userInfo.find("backtrace")->as<Value::List>()->size(),
            raised.callStackSymbols().size());
  EXPECT_EQ(lines().back(),
            errorLine("NotificationHandler: publishItem: received an exception publishing n"));
  EXPECT_TRUE(one.handler()->publishedItems().empty());
  // The connection still works.
  service->makePublishBehavior = nullptr;
  mustPublish(one, "n", 1);
}

TEST_F(NotificationHandler, AStandardExceptionWhilePublishingIsAnsweredToo) {
  service->makeItem = []() -> std::shared_ptr<KLNPublishedObject> {
    throw std::runtime_error("no luck");
  };
  const auto id = publish(one, "n", number(1));
  executor.runAll();
  expectException(publishError(one, id), "publishName", "std::exception", "no luck");
  EXPECT_EQ(lines().back(),
            errorLine("NotificationHandler: publishItem: received an exception publishing n"));
}

TEST_F(NotificationHandler, AnExceptionWhileSubscribingIsAnswered) {
  service->makeSubscriberBehavior = [](std::uint64_t,
                                       std::int64_t) -> std::shared_ptr<SubscriberBehavior> {
    throw Exception(NSGenericException, "why not");
  };
  const auto id = subscribe(one, "n");
  executor.runAll();
  expectException(subscribeError(one, id), "subscriptionName", "NSGenericException", "why not");
  EXPECT_EQ(lines().back(), errorLine("NotificationHandler: subscribeTo: received an exception "
                                      "processing a subscription request for n"));
  EXPECT_TRUE(one.handler()->subscriptions().empty());
}

TEST_F(NotificationHandler, AStandardExceptionWhileSubscribingIsAnsweredToo) {
  service->makeSubscription = []() -> std::shared_ptr<KLNSubscriptionObject> {
    throw std::runtime_error("no luck");
  };
  const auto id = subscribe(one, "n");
  executor.runAll();
  expectException(subscribeError(one, id), "subscriptionName", "std::exception", "no luck");
}

}  // namespace
}  // namespace keel
