// SPDX-License-Identifier: Apache-2.0
#include "client/client_world.h"

namespace keel {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Kind = ClientError::Kind;

class ClientReconnect : public ClientWorld {
 protected:
  void follow(const char* name) {
    auto result =
        resultOf(client->subscribe(name, [this](const Event& event) { events.push_back(event); }));
    ASSERT_TRUE(result.has_value());
    subscriptions.push_back(std::move(*result));
  }
  void lose(std::string_view goodbye = {}) {
    service().end(goodbye);
    settle();
  }
  std::vector<std::string> states() {
    std::vector<std::string> names;
    for (const ConnectionState& state : seen) {
      constexpr const char* kNames[] = {"connecting", "connected", "disconnected", "closed"};
      names.emplace_back(kNames[static_cast<std::size_t>(state.kind)]);
    }
    return names;
  }
  void watchStates() {
    client->setStateHandler([this](const ConnectionState& state) { seen.push_back(state); });
  }

  std::vector<Event> events;
  std::vector<Subscription> subscriptions;
  std::vector<ConnectionState> seen;
};

const Value kOne = Value::map({{"n", 1}});
const Value kTwo = Value::map({{"n", 2}});

TEST_F(ClientReconnect, RestoresTheLastDataInTheOriginalOrder) {
  makeConnectedClient();
  EXPECT_TRUE(resultOf(client->publish("b", kOne)).has_value());
  follow("s");
  EXPECT_TRUE(resultOf(client->publish("a", kOne)).has_value());
  EXPECT_TRUE(resultOf(client->publish("gone", kOne)).has_value());
  EXPECT_TRUE(resultOf(client->update("b", kTwo)).has_value());
  EXPECT_TRUE(resultOf(client->remove("gone")).has_value());
  lose();
  shared.calls.clear();
  shared.lastData.clear();
  pass(100ms);
  EXPECT_THAT(shared.calls, ElementsAre("publish b", "subscribe s", "publish a"));
  EXPECT_EQ(shared.lastData["b"], kTwo);
  EXPECT_EQ(subscriptions[0].state(), Subscription::State::active);
}

TEST_F(ClientReconnect, ASubscriptionReceivesEventsOnTheNewConnection) {
  makeConnectedClient();
  follow("s");
  lose();
  EXPECT_EQ(subscriptions[0].state(), Subscription::State::waiting);
  pass(100ms);
  service().send("s", kTwo);
  settle();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].data(), kTwo);
}

TEST_F(ClientReconnect, ACancelledSubscriptionIsNotRestored) {
  makeConnectedClient();
  follow("s");
  lose();
  subscriptions.clear();
  shared.calls.clear();
  pass(100ms);
  EXPECT_TRUE(shared.calls.empty());
}

TEST_F(ClientReconnect, ARefusedPublicationIsReportedAndRetried) {
  makeConnectedClient();
  std::vector<PublicationState> reported;
  client->setPublicationHandler([&](const PublicationState& state) { reported.push_back(state); });
  EXPECT_TRUE(resultOf(client->publish("a", kOne)).has_value());
  EXPECT_TRUE(resultOf(client->publish("b", kOne)).has_value());
  shared.refusals["a"] = errDuplicate;
  lose();
  EXPECT_EQ(resultOf(client->publications())->at(0).kind, PublicationState::Kind::waiting);
  pass(100ms);
  ASSERT_EQ(reported.size(), 1U);
  EXPECT_EQ(reported[0].name, String("a"));
  EXPECT_EQ(reported[0].error.code(), errDuplicate);
  auto states = resultOf(client->publications());
  ASSERT_EQ(states->size(), 2U);
  EXPECT_EQ(states->at(0).kind, PublicationState::Kind::refused);
  EXPECT_EQ(states->at(1).kind, PublicationState::Kind::published);

  shared.refusals.clear();
  lose();
  pass(10s);
  EXPECT_EQ(resultOf(client->publications())->at(0).kind, PublicationState::Kind::published);
  EXPECT_EQ(reported.size(), 1U);
}

TEST_F(ClientReconnect, ARefusedSubscriptionReceivesTheError) {
  makeConnectedClient();
  follow("s");
  shared.refusals["s"] = errRequestFailed;
  lose();
  pass(100ms);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].error.code(), errRequestFailed);
  EXPECT_EQ(subscriptions[0].state(), Subscription::State::refused);
}

TEST_F(ClientReconnect, RequestsInFlightEndDisconnectedWithTheDaemonsReason) {
  makeConnectedClient();
  shared.answers = false;
  auto publishing = client->publish("a", kOne).future();
  auto dumping = client->dumpAll().future();
  settle();
  lose("too slow: 9 bytes were waiting");
  ASSERT_TRUE(isReady(publishing) && isReady(dumping));
  const auto result = publishing.get();
  EXPECT_EQ(kindOf(result), Kind::disconnected);
  EXPECT_THAT(result.error().message(), HasSubstr("too slow: 9 bytes were waiting"));
  EXPECT_EQ(kindOf(dumping.get()), Kind::disconnected);
  shared.answers = true;
  shared.calls.clear();
  pass(100ms);
  EXPECT_TRUE(shared.calls.empty());
}

TEST_F(ClientReconnect, RequestsMadeWhileDisconnectedAreSentAfterTheRestoration) {
  makeConnectedClient();
  EXPECT_TRUE(resultOf(client->publish("a", kOne)).has_value());
  lose();
  shared.calls.clear();
  auto updating = client->update("a", kTwo).future();
  settle();
  EXPECT_FALSE(isReady(updating));
  pass(100ms);
  ASSERT_TRUE(isReady(updating));
  EXPECT_TRUE(updating.get().has_value());
  EXPECT_THAT(shared.calls, ElementsAre("publish a", "update a"));
}

TEST_F(ClientReconnect, ARequestThatTimesOutNamesTheReasonOfTheDisconnection) {
  connectErrno = ENOENT;
  makeClient({.requestTimeout = 1s});
  auto publishing = client->publish("a", kOne).future();
  settle();
  pass(999ms);
  EXPECT_FALSE(isReady(publishing));
  pass(1ms);
  ASSERT_TRUE(isReady(publishing));
  const auto result = publishing.get();
  EXPECT_EQ(kindOf(result), Kind::notRunning);
  EXPECT_THAT(result.error().message(), HasSubstr("no socket at /run/keeld/test; start it with"));
}

TEST_F(ClientReconnect, WithoutReconnectingRequestsFailImmediately) {
  connectErrno = EACCES;
  makeClient({.reconnect = false});
  EXPECT_EQ(kindOf(resultOf(client->publish("a", kOne))), Kind::permissionDenied);
  connectErrno = 0;
  pass(1h);
  EXPECT_EQ(kindOf(resultOf(client->publish("a", kOne))), Kind::permissionDenied);
  EXPECT_EQ(attempts, 1);
}

TEST_F(ClientReconnect, WithoutReconnectingALossEndsPendingRequests) {
  makeConnectedClient({.reconnect = false});
  lose("going down");
  const auto result = resultOf(client->publish("a", kOne));
  EXPECT_EQ(kindOf(result), Kind::disconnected);
  EXPECT_THAT(result.error().message(), HasSubstr("going down"));
  EXPECT_EQ(attempts, 1);
}

TEST_F(ClientReconnect, PausesDoubleUpToTheMaximum) {
  connectErrno = ECONNREFUSED;
  makeClient({.minimumPause = 100ms, .maximumPause = 400ms});
  settle();
  int expected = 1;
  for (const auto pause : {100ms, 200ms, 400ms, 400ms}) {
    pass(pause - 1ms);
    EXPECT_EQ(attempts, expected);
    pass(1ms);
    EXPECT_EQ(attempts, ++expected);
  }
}

TEST_F(ClientReconnect, ThePauseIsResetOnlyAfterASteadyConnection) {
  connectErrno = ECONNREFUSED;
  makeClient({.minimumPause = 100ms, .maximumPause = 400ms});
  settle();
  connectErrno = 0;
  pass(100ms);
  lose();
  pass(199ms);
  EXPECT_EQ(attempts, 2);
  pass(1ms);
  EXPECT_EQ(attempts, 3);
  pass(400ms);
  lose();
  pass(100ms);
  EXPECT_EQ(attempts, 4);
}

TEST_F(ClientReconnect, StateChangesAreReported) {
  connectErrno = ENOENT;
  makeClient();
  watchStates();
  settle();
  connectErrno = 0;
  pass(100ms);
  lose("bye");
  client->close();
  settle();
  EXPECT_THAT(states(),
              ElementsAre("disconnected", "connecting", "connected", "disconnected", "closed"));
  EXPECT_EQ(seen[0].error, Kind::notRunning);
  EXPECT_THAT(seen[3].reason, HasSubstr("bye"));
}

}  // namespace
}  // namespace keel
