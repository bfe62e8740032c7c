// SPDX-License-Identifier: Apache-2.0
#include "client/client_world.h"

namespace keel {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Kind = ClientError::Kind;

class ClientRequest : public ClientWorld {};

const Value kData = Value::map({{"degrees", 21}, {"place", "Bern"}});

TEST_F(ClientRequest, PublishSendsDataFlagsAndValue) {
  makeConnectedClient();
  EXPECT_TRUE(resultOf(client->publish("weather", kData, ~std::uint64_t{0}, -5)).has_value());
  EXPECT_EQ(shared.lastData["weather"], kData);
  EXPECT_EQ(service().lastFlags, ~std::uint64_t{0});
  EXPECT_EQ(service().lastValue, -5);
}

TEST_F(ClientRequest, PublishAcceptsNullData) {
  makeConnectedClient();
  EXPECT_TRUE(resultOf(client->publish("weather", nullptr)).has_value());
  EXPECT_TRUE(shared.lastData.at("weather").isNull());
}

TEST_F(ClientRequest, RequestsMadeBeforeTheConnectionAreSentInOrder) {
  makeClient();
  auto first = client->publish("a", kData).future();
  auto second = client->update("a", kData).future();
  auto third = client->remove("a").future();
  settle();
  EXPECT_TRUE(first.get().has_value());
  EXPECT_TRUE(second.get().has_value());
  EXPECT_TRUE(third.get().has_value());
  EXPECT_THAT(shared.calls, ElementsAre("publish a", "update a", "remove a"));
}

TEST_F(ClientRequest, RefusalsBecomeKindsAndKeepTheirError) {
  makeConnectedClient();
  const std::pair<int, Kind> expectations[] = {{errDuplicate, Kind::duplicate},
                                               {errNotOwner, Kind::notOwner},
                                               {errNotFound, Kind::notFound},
                                               {errNilName, Kind::nilName},
                                               {errRequestFailed, Kind::requestFailed}};
  for (const auto& [code, kind] : expectations) {
    shared.refusals["weather"] = code;
    const auto result = resultOf(client->publish("weather", kData));
    EXPECT_EQ(kindOf(result), kind);
    EXPECT_EQ(result.error().underlying().code(), code);
    EXPECT_THAT(result.error().message(), HasSubstr("publish \"weather\""));
  }
}

TEST_F(ClientRequest, TheDaemonsDescriptionIsPassedOn) {
  makeConnectedClient();
  shared.refusalText = "the key weather has already been published";
  shared.refusals["weather"] = errDuplicate;
  EXPECT_EQ(
      resultOf(client->publish("weather", kData)).error().message(),
      "keeld refused to publish \"weather\": the key weather has already been published (error 9)");
}

TEST_F(ClientRequest, NullNamesAreSentAndRefusedByTheDaemon) {
  makeConnectedClient();
  EXPECT_EQ(kindOf(resultOf(client->publish(nullptr, kData))), Kind::nilName);
  EXPECT_EQ(kindOf(resultOf(client->subscribe(nullptr, [](const Event&) {}))), Kind::nilName);
  EXPECT_THAT(shared.calls, ElementsAre("publish (null)", "subscribe (null)"));
}

TEST_F(ClientRequest, UnsendableArgumentsAreRefusedLocally) {
  makeConnectedClient();
  EXPECT_EQ(kindOf(resultOf(client->publish("weather", "text"))), Kind::badArgument);
  EXPECT_EQ(kindOf(resultOf(client->update("weather", Value::list({})))), Kind::badArgument);
  EXPECT_EQ(kindOf(resultOf(
                client->publish("weather", Value::map({{"a", std::string(17u << 20, 'x')}})))),
            Kind::tooLarge);
  EXPECT_TRUE(shared.calls.empty());
}

TEST_F(ClientRequest, ACallbackRunsOnceAndNeverWithinTheCall) {
  makeConnectedClient();
  int calls = 0;
  EXPECT_TRUE(client->publish("weather", kData).then([&](ClientResult<void> result) {
    ++calls;
    EXPECT_TRUE(result.has_value());
  }));
  EXPECT_EQ(calls, 0);
  settle();
  EXPECT_EQ(calls, 1);
}

TEST_F(ClientRequest, ACallbackMayMakeFurtherRequests) {
  makeConnectedClient();
  bool updated = false;
  client->publish("weather", kData).then([&](ClientResult<void>) {
    client->update("weather", kData).then([&](ClientResult<void> result) {
      updated = result.has_value();
    });
  });
  settle();
  EXPECT_TRUE(updated);
}

TEST_F(ClientRequest, ARequestThatIsNotBegunIsNotSent) {
  makeConnectedClient();
  static_cast<void>(client->publish("weather", kData));
  settle();
  EXPECT_TRUE(shared.calls.empty());
}

TEST_F(ClientRequest, WaitingOnTheLibrarysThreadIsRefused) {
  makeConnectedClient();
  EXPECT_EQ(kindOf(client->publish("weather", kData).wait()), Kind::wouldDeadlock);
  settle();
  EXPECT_TRUE(shared.calls.empty());
}

TEST_F(ClientRequest, AnUnansweredRequestTimesOut) {
  makeConnectedClient({.requestTimeout = 2s});
  shared.answers = false;
  auto byOptions = client->publish("weather", kData).future();
  auto byItself = client->dumpAll().within(500ms).future();
  settle();
  pass(499ms);
  EXPECT_FALSE(isReady(byItself));
  pass(1ms);
  ASSERT_TRUE(isReady(byItself));
  EXPECT_EQ(kindOf(byItself.get()), Kind::timedOut);
  pass(1499ms);
  EXPECT_FALSE(isReady(byOptions));
  pass(1ms);
  ASSERT_TRUE(isReady(byOptions));
  const auto result = byOptions.get();
  EXPECT_EQ(kindOf(result), Kind::timedOut);
  EXPECT_THAT(result.error().message(), HasSubstr("within 2 s"));
}

TEST_F(ClientRequest, TheLongestTimeoutWaitsAndANegativeOneDoesNot) {
  makeConnectedClient({.requestTimeout = std::chrono::milliseconds::max()});
  shared.answers = false;
  auto endless = client->dumpAll().future();
  auto negative = client->authCheck("alice", 7).within(-1ms).future();
  settle();
  pass(24h);
  EXPECT_FALSE(isReady(endless));
  ASSERT_TRUE(isReady(negative));
  EXPECT_EQ(kindOf(negative.get()), Kind::timedOut);
}

TEST_F(ClientRequest, APublicationAcceptedTooLateIsReverted) {
  makeConnectedClient({.requestTimeout = 1s});
  shared.answers = false;
  auto result = client->publish("weather", kData).future();
  settle();
  pass(1s);
  EXPECT_EQ(kindOf(result.get()), Kind::timedOut);
  shared.answers = true;
  service().answerHeld();
  settle();
  EXPECT_THAT(shared.calls, ElementsAre("publish weather", "remove weather"));
  EXPECT_TRUE(resultOf(client->publications())->empty());
}

TEST_F(ClientRequest, ASubscriptionAcceptedTooLateIsReverted) {
  makeConnectedClient({.requestTimeout = 1s});
  shared.answers = false;
  auto result = client->subscribe("weather", [](const Event&) { FAIL(); }).future();
  settle();
  pass(1s);
  EXPECT_EQ(kindOf(result.get()), Kind::timedOut);
  service().answerHeld();
  service().send("weather", kData);
  settle();
  EXPECT_THAT(shared.calls, ElementsAre("subscribe weather", "unsubscribe weather"));
}

TEST_F(ClientRequest, RequestsUpToTheLimitWaitAndOneMoreIsRefused) {
  makeConnectedClient({.waitingRequests = 2});
  shared.answers = false;
  auto first = client->publish("a", kData).future();
  auto second = client->publish("b", kData).future();
  bool called = false;
  const auto third = client->publish("c", kData).then([&](ClientResult<void>) { called = true; });
  EXPECT_EQ(kindOf(third), Kind::tooMany);
  EXPECT_EQ(kindOf(resultOf(client->publish("d", kData))), Kind::tooMany);
  service().answerHeld();
  settle();
  shared.answers = true;
  EXPECT_TRUE(first.get().has_value());
  EXPECT_TRUE(resultOf(client->publish("e", kData)).has_value());
  EXPECT_FALSE(called);
  EXPECT_THAT(shared.calls, ElementsAre("publish a", "publish b", "publish e"));
}

TEST_F(ClientRequest, PendingDataIsBounded) {
  makeConnectedClient({.waitingBytes = 1000});
  shared.answers = false;
  const Value large = Value::map({{"a", std::string(500, 'x')}});
  auto first = client->publish("a", large).future();
  EXPECT_EQ(kindOf(resultOf(client->publish("b", large))), Kind::tooMany);
  EXPECT_FALSE(isReady(first));
}

TEST_F(ClientRequest, DumpReturnsEntries) {
  makeConnectedClient();
  shared.dump = Value::list({Value::map({{"name", "weather"},
                                         {"publisher", "<connection 1>"},
                                         {"publishDate", Date{5}},
                                         {"subscribers", Value::list({})}})});
  const auto entries = resultOf(client->dumpAll());
  ASSERT_TRUE(entries.has_value());
  ASSERT_EQ(entries->size(), 1U);
  EXPECT_EQ(entries->front().publisher, "<connection 1>");
  EXPECT_THAT(shared.calls, ElementsAre("dump _all"));
}

TEST_F(ClientRequest, MessagesCallADumpOfAllItemsThat) {
  connectErrno = ENOENT;
  makeClient({.reconnect = false});
  EXPECT_THAT(resultOf(client->dumpAll()).error().message(),
              StartsWith("could not dump all items: keeld is not running"));
  EXPECT_THAT(resultOf(client->dump("_all")).error().message(),
              StartsWith("could not dump all items: "));
  EXPECT_THAT(resultOf(client->dump("weather")).error().message(),
              StartsWith("could not dump \"weather\": "));
}

TEST_F(ClientRequest, ADumpOfAnUnknownNameIsNotFound) {
  makeConnectedClient();
  shared.refusals["weather"] = errNotFound;
  EXPECT_EQ(kindOf(resultOf(client->dump("weather", /*withData=*/true))), Kind::notFound);
  EXPECT_THAT(shared.calls, ElementsAre("dump with data weather"));
}

TEST_F(ClientRequest, AuthCheckReturnsTheAnswer) {
  makeConnectedClient();
  EXPECT_EQ(resultOf(client->authCheck("ann", 7)), true);
  EXPECT_EQ(resultOf(client->authCheck("ann", -1)), false);
}

TEST_F(ClientRequest, ModuleTableReturnsNamesAndServices) {
  makeConnectedClient();
  shared.modules = Value::map({{"keel_mail", "com.vantor.keeld.mail"}});
  const auto modules = resultOf(client->moduleTable());
  ASSERT_TRUE(modules.has_value());
  EXPECT_THAT(*modules, ElementsAre(::testing::Pair("keel_mail", "com.vantor.keeld.mail")));
}

TEST_F(ClientRequest, AMalformedAnswerIsRefused) {
  makeConnectedClient();
  shared.dump = Value::list({"no entry"});
  EXPECT_EQ(kindOf(resultOf(client->dumpAll())), Kind::refused);
}

TEST_F(ClientRequest, LargeDataTravels) {
  makeConnectedClient();
  const Value large = Value::map({{"a", std::string(1u << 20, 'x')}});
  const auto result = resultOf(client->publish("weather", large));
  EXPECT_TRUE(result.has_value()) << result.error().message();
  EXPECT_EQ(shared.lastData["weather"], large);
}

}  // namespace
}  // namespace keel
