// SPDX-License-Identifier: Apache-2.0
#include "client/client_world.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using Kind = ClientError::Kind;

class ClientSubscription : public ClientWorld {
 protected:
  Subscription follow(const char* name) {
    auto result =
        resultOf(client->subscribe(name, [this](const Event& event) { events.push_back(event); }));
    EXPECT_TRUE(result.has_value());
    return result ? std::move(*result) : Subscription();
  }
  std::vector<Event> events;
};

const Value kData = Value::map({{"n", 1}});

TEST_F(ClientSubscription, ReceivesDataNullDataAndErrors) {
  makeConnectedClient();
  const Subscription subscription = follow("a");
  EXPECT_EQ(subscription.name(), String("a"));
  EXPECT_EQ(subscription.state(), Subscription::State::active);
  service().send("a", kData);
  service().send("a", nullptr);
  service().send("a", nullptr, Error("SomeDomain", 77));
  settle();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[0].name, String("a"));
  EXPECT_EQ(events[0].data(), kData);
  EXPECT_FALSE(events[0].error);
  EXPECT_TRUE(events[1].item.isNull());
  EXPECT_TRUE(events[1].data().isNull());
  EXPECT_EQ(events[2].error.code(), 77);
}

TEST_F(ClientSubscription, ReceivesOnlyItsName) {
  makeConnectedClient();
  const Subscription subscription = follow("a");
  service().send("b", kData);
  settle();
  EXPECT_TRUE(events.empty());
}

TEST_F(ClientSubscription, IsUnsubscribedWhenDestroyed) {
  makeConnectedClient();
  {
    const Subscription subscription = follow("a");
  }
  service().send("a", kData);
  settle();
  EXPECT_TRUE(events.empty());
  EXPECT_THAT(shared.calls, ElementsAre("subscribe a", "unsubscribe a"));
}

TEST_F(ClientSubscription, MayBeDestroyedInItsOwnCallback) {
  makeConnectedClient();
  int count = 0;
  Subscription subscription;
  auto result = resultOf(client->subscribe("a", [&](const Event&) {
    ++count;
    subscription.cancel();
  }));
  subscription = std::move(*result);
  service().send("a", kData);
  service().send("a", kData);
  settle();
  EXPECT_EQ(count, 1);
}

TEST_F(ClientSubscription, MayBeDestroyedInTheCallbackOfItsRequest) {
  makeConnectedClient();
  client->subscribe("a", [](const Event&) { FAIL(); }).then([](ClientResult<Subscription>) {});
  settle();
  service().send("a", kData);
  settle();
  EXPECT_THAT(shared.calls, ElementsAre("subscribe a", "unsubscribe a"));
}

TEST_F(ClientSubscription, ItsNameCanBeFollowedAgainImmediately) {
  makeConnectedClient();
  Subscription subscription = follow("a");
  subscription.cancel();
  subscription = follow("a");
  service().send("a", kData);
  settle();
  EXPECT_EQ(events.size(), 1U);
  EXPECT_EQ(subscription.state(), Subscription::State::active);
  EXPECT_THAT(shared.calls, ElementsAre("subscribe a", "unsubscribe a", "subscribe a"));
}

TEST_F(ClientSubscription, MovedFromFollowsNothing) {
  makeConnectedClient();
  Subscription first = follow("a");
  const Subscription second = std::move(first);
  EXPECT_TRUE(first.name().isNull());
  EXPECT_EQ(first.state(), Subscription::State::ended);
  service().send("a", kData);
  settle();
  EXPECT_EQ(events.size(), 1U);
}

TEST_F(ClientSubscription, ARefusedSubscriptionReceivesNothing) {
  makeConnectedClient();
  shared.refusals["a"] = errDuplicate;
  EXPECT_EQ(kindOf(resultOf(client->subscribe("a", [](const Event&) { FAIL(); }))),
            Kind::duplicate);
  service().send("a", kData);
  settle();
}

TEST_F(ClientSubscription, AnEventKeepsItsDataAfterTheCallback) {
  makeConnectedClient();
  Subscription subscription = follow("a");
  const Value large = Value::map({{"text", std::string(1u << 20, 'y')}});
  service().send("a", large);
  settle();
  subscription.cancel();
  client.reset();
  settle();
  EXPECT_EQ(events.at(0).data(), large);
}

}  // namespace
}  // namespace keel
