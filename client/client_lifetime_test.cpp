// SPDX-License-Identifier: Apache-2.0
#include "client/client_world.h"

namespace keel {
namespace {

using namespace std::chrono_literals;
using Kind = ClientError::Kind;

class ClientLifetime : public ClientWorld {};

const Value kData = Value::map({{"n", 1}});

TEST_F(ClientLifetime, DestructionMakesFuturesReadyAndCallsNoCallback) {
  makeConnectedClient();
  shared.answers = false;
  bool called = false;
  client->setStateHandler([&](const ConnectionState&) { called = true; });
  settle();
  called = false;
  auto future = client->publish("a", kData).future();
  client->publish("b", kData).then([&](ClientResult<void>) { called = true; });
  settle();
  client.reset();
  settle();
  ASSERT_TRUE(isReady(future));
  EXPECT_EQ(kindOf(future.get()), Kind::closed);
  EXPECT_FALSE(called);
  EXPECT_TRUE(service().ended());
}

TEST_F(ClientLifetime, AnswersInFlightAreDropped) {
  makeConnectedClient();
  shared.answers = false;
  client->publish("a", kData).then([](ClientResult<void>) { FAIL(); });
  settle();
  service().answerHeld();
  client.reset();
  settle();
}

TEST_F(ClientLifetime, AClientMayBeDestroyedInTheCallbackOfARequest) {
  makeConnectedClient();
  int calls = 0;
  for (int i = 0; i < 3; ++i) {
    client->publish("a", kData).then([&](ClientResult<void>) {
      ++calls;
      client.reset();
    });
  }
  settle();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(service().ended());
}

TEST_F(ClientLifetime, AClientMayBeDestroyedInTheCallbackOfAnEvent) {
  makeConnectedClient();
  int events = 0;
  auto subscription = resultOf(client->subscribe("a", [&](const Event&) {
    ++events;
    client.reset();
  }));
  service().send("a", kData);
  service().send("a", kData);
  settle();
  EXPECT_EQ(events, 1);
  EXPECT_EQ(subscription->state(), Subscription::State::ended);
}

TEST_F(ClientLifetime, AClientMayBeDestroyedInTheStateHandler) {
  makeConnectedClient();
  client->setStateHandler([&](const ConnectionState& state) {
    if (state.kind == ConnectionState::Kind::disconnected) client.reset();
  });
  settle();
  service().end({});
  settle();
  pass(1min);
  EXPECT_EQ(client, nullptr);
  EXPECT_EQ(attempts, 1);
}

TEST_F(ClientLifetime, CloseEndsEveryRequestWithClosed) {
  makeConnectedClient();
  shared.answers = false;
  std::vector<Kind> kinds;
  ConnectionState last;
  client->setStateHandler([&](const ConnectionState& state) { last = state; });
  client->publish("a", kData).then([&](ClientResult<void> result) {
    kinds.push_back(kindOf(result));
  });
  settle();
  client->close();
  client->publish("b", kData).then([&](ClientResult<void> result) {
    kinds.push_back(kindOf(result));
  });
  settle();
  EXPECT_EQ(kinds, (std::vector<Kind>{Kind::closed, Kind::closed}));
  EXPECT_EQ(last.kind, ConnectionState::Kind::closed);
  EXPECT_TRUE(service().ended());
  pass(1min);
  EXPECT_EQ(attempts, 1);
}

TEST_F(ClientLifetime, ASubscriptionOutlivesItsClient) {
  makeConnectedClient();
  auto subscription = resultOf(client->subscribe("a", [](const Event&) { FAIL(); }));
  ASSERT_TRUE(subscription.has_value());
  client.reset();
  settle();
  EXPECT_EQ(subscription->state(), Subscription::State::ended);
  EXPECT_EQ(subscription->name(), String("a"));
  subscription->cancel();
}

TEST_F(ClientLifetime, ARequestBegunAfterTheDestructionIsClosed) {
  makeConnectedClient();
  auto request = client->publish("a", kData);
  client.reset();
  EXPECT_EQ(kindOf(resultOf(std::move(request))), Kind::closed);
  EXPECT_TRUE(shared.calls.empty());
}

TEST_F(ClientLifetime, SeveralClientsAreIndependent) {
  makeConnectedClient();
  const auto first = std::move(client);
  makeConnectedClient();
  EXPECT_TRUE(resultOf(first->publish("a", kData)).has_value());
  EXPECT_TRUE(resultOf(client->publish("b", kData)).has_value());
  EXPECT_EQ(resultOf(first->publications())->size(), 1U);
  EXPECT_EQ(services.size(), 2U);
}

}  // namespace
}  // namespace keel
