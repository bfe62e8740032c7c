// SPDX-License-Identifier: Apache-2.0
#include "notify/dump_coordinator.h"

#include <algorithm>

#include "notify/incremental_work_queue.h"
#include "notify/notify_fixture.h"

namespace keel {
namespace {

// Dumps of all items, of which each slice describes one. Those that a test sees change or leave are
// described last.
class DumpCoordinatorTest : public NotifyTest {
 protected:
  DumpCoordinatorTest() {
    desk().setStepWork(1);
    for (const char* name : {"a", "b", "c"}) publish(one, name, number(1));
    runAll();
    entry("c")->setLastUpdated(Date{1.0});
    forget();
  }
  // One turn of the input queue, and what the connections have to do then.
  void turn() {
    executor.runOne();
    connections.runAll();
  }
  void runAll() {
    while (executor.scheduledCount() > 0) turn();
  }
  DumpCoordinator& desk() { return service->work().dumps(); }
  std::shared_ptr<KLNPublishedObject> entry(const Name& name) {
    return service->published().at(name);
  }
  void forget() {
    for (NotifyClient* client : {&one, &other, &asker}) {
      if (client->connection()) client->take();
    }
    log.take();
  }
  // Follows `name`, and has heard from it last at `date`.
  std::shared_ptr<KLNSubscriptionObject> followed(NotifyClient& client, const Name& name,
                                                  Date date) {
    subscribe(client, name);
    runAll();
    const auto subscription = entry(name)->subscriberForConnection(client.connection());
    subscription->setLastUpdated(date);
    forget();
    return subscription;
  }

  // Requests a dump, and runs what waits: the dump's first slice, and whatever was requested
  // before.
  static std::uint64_t request(NotifyClient& client, bool withData = true) {
    return client.request<&NotifyProxy::dumpNotification>("_all", withData);
  }
  std::uint64_t begin(NotifyClient& client) {
    const auto id = request(client);
    turn();
    EXPECT_FALSE(client.isAnswered(id));
    return id;
  }
  static Value::List entriesOf(const NotifyClient& client, std::uint64_t id) {
    const auto results = client.resultsOf<&NotifyProxy::dumpNotification>(id);
    EXPECT_TRUE(results) << "dump " << id << " is not answered";
    if (!results) return {};
    EXPECT_FALSE(std::get<1>(*results));
    return *std::get<0>(*results).value().as<Value::List>();
  }
  static std::vector<std::string> namesOf(const Value::List& entries) {
    std::vector<std::string> names;
    for (const Value& each : entries) names.emplace_back(each.textOf("name"));
    return names;
  }
  static Value entryOf(const Value::List& entries, std::string_view name) {
    const auto found =
        std::ranges::find(entries, name, [](const Value& each) { return each.textOf("name"); });
    EXPECT_NE(found, entries.end());
    return found != entries.end() ? *found : Value();
  }
  // What a dump of one name says now.
  Value describe(Name name) {
    const auto id = asker.request<&NotifyProxy::dumpNotification>(std::move(name), true);
    turn();
    return entriesOf(asker, id).front();
  }

  // Changes "c" between two slices: neither `change` nor what it queued shows in the dump, but does
  // afterwards.
  template <class Change>
  void expectUnseen(Change change) {
    const Value before = describe("c");
    const auto id = begin(asker);
    change();
    runAll();
    const auto entries = entriesOf(asker, id);
    EXPECT_EQ(entryOf(entries, "c"), before);
    EXPECT_EQ(entries.size(), 3u);
    if (service->published().contains("c")) {
      EXPECT_NE(describe("c"), before);
    }
  }

  ManualExecutor connections;
  NotifyClient one{connections, FakeClient::identity(11)};
  NotifyClient other{connections, FakeClient::identity(12)};
  NotifyClient asker{connections, FakeClient::identity(13)};
};

TEST_F(DumpCoordinatorTest, OtherRequestsRunBetweenSlices) {
  const auto dump = begin(asker);
  const auto answered = update(one, "a", number(2));
  turn();
  EXPECT_TRUE(one.isAnswered(answered));
  EXPECT_FALSE(asker.isAnswered(dump));
  turn();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(executor.scheduledCount(), 0u);
  EXPECT_THAT(other.received(), IsEmpty());
}

TEST_F(DumpCoordinatorTest, WhatFitsOneSliceIsAnsweredInOneBlock) {
  desk().setStepWork(3);
  const auto fits = request(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, fits).size(), 3u);
  EXPECT_EQ(executor.scheduledCount(), 0u);

  desk().setStepWork(2);
  const auto exceeds = begin(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, exceeds).size(), 3u);
}

TEST_F(DumpCoordinatorTest, TheUsualSliceHoldsSixtyFourItems) {
  desk().setStepWork(DumpCoordinator::kStepWork);
  for (int i = 3; i < 64; ++i) publish(one, Name(std::to_string(i)), nullptr);
  runAll();
  const auto fits = request(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, fits).size(), 64u);
  publish(one, "one more", nullptr);
  runAll();
  begin(asker);
}

TEST_F(DumpCoordinatorTest, SubscribersCountAsWork) {
  followed(other, "a", Date{1.0});
  desk().setStepWork(3);
  const auto dump = begin(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, dump).size(), 3u);
}

TEST_F(DumpCoordinatorTest, LargeDataCountAsWork) {
  desk().setStepWork(3);
  update(one, "a", Dictionary(Value::map({{"text", std::string(4096, 'x')}})));
  runAll();
  const auto dump = begin(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, dump).size(), 3u);
}

TEST_F(DumpCoordinatorTest, AnUpdateIsNotSeen) {
  expectUnseen([this] { update(one, "c", number(2)); });
}

TEST_F(DumpCoordinatorTest, AnUpdateThatTheSubscriberHearsOfIsNotSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] { update(one, "c", number(1)); });
}

TEST_F(DumpCoordinatorTest, ADateThatChangesAloneIsNotSeen) {
  expectUnseen([this] { entry("c")->setLastUpdated(Date{2.0}); });
}

TEST_F(DumpCoordinatorTest, ANameThatChangesIsNotSeen) {
  expectUnseen([this] { entry("c")->setName("d"); });
}

TEST_F(DumpCoordinatorTest, ASubscriberThatComesIsNotSeen) {
  expectUnseen([this] { subscribe(other, "c"); });
}

TEST_F(DumpCoordinatorTest, ASubscriberThatGoesIsStillSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] { unsubscribe(other, "c"); });
}

TEST_F(DumpCoordinatorTest, AFirstDeliveryAfterTheBeginningIsNotSeen) {
  subscribe(other, "c");
  const auto dump = request(asker);
  // The delivery is queued behind the dump's beginning.
  runAll();
  const auto entries = entriesOf(asker, dump);
  const Value c = entryOf(entries, "c");
  EXPECT_EQ(c.find("subscribers")->as<Value::List>()->front().textOf("updateDate"),
            "<never updated>");
  EXPECT_NE(describe("c"), c);
}

TEST_F(DumpCoordinatorTest, AnErrorThatTheSubscriberHearsOfIsNotSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] { entry("c")->updateWithError(Error("test", 1)); });
}

// What the asker of a dump hears of what came after the dump's beginning may overtake the answer,
// but is not in it.
TEST_F(DumpCoordinatorTest, ADeliveryToTheAskerMayOvertakeTheAnswerWhichDoesNotShowIt) {
  followed(asker, "c", Date{1.0});
  const Value before = describe("c");
  forget();
  const auto dump = begin(asker);
  update(one, "c", number(2));
  turn();
  ASSERT_EQ(asker.received().size(), 1u);
  EXPECT_EQ(asker.received().front().item, number(2));
  runAll();
  const Value c = entryOf(entriesOf(asker, dump), "c");
  EXPECT_EQ(c, before);
  EXPECT_EQ(*c.find("publishDate"), Value(Date{1.0}));
  EXPECT_EQ(*c.find("subscribers")->as<Value::List>()->front().find("updateDate"),
            Value(Date{1.0}));
  EXPECT_EQ(*describe("c").find("publishedData"), number(2).value());
}

// What was carried out before the dump began was delivered before its answer.
TEST_F(DumpCoordinatorTest, TheAnswerIsNotAheadOfDeliveries) {
  followed(asker, "c", Date{1.0});
  update(one, "c", number(2));
  const auto dump = request(asker);
  runAll();
  EXPECT_EQ(*entryOf(entriesOf(asker, dump), "c").find("publishedData"), number(2).value());
  ASSERT_EQ(asker.received().size(), 2u);
  EXPECT_EQ(asker.received().front().item, number(2));
  EXPECT_EQ(asker.received().back().requestId, dump);
}

TEST_F(DumpCoordinatorTest, ABatchOfUpdatesIsNotSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] {
    for (int value = 2; value < 5; ++value) update(one, "c", number(value));
  });
}

TEST_F(DumpCoordinatorTest, ASubscriptionThatChangesHandsIsNotSeen) {
  const auto subscription = followed(other, "c", Date{1.0});
  expectUnseen([this, subscription] { subscription->setOwner(one.connection()); });
}

TEST_F(DumpCoordinatorTest, APublisherThatComesIsNotSeen) {
  followed(other, "c", Date{1.0});
  remove(one, "c");
  runAll();
  expectUnseen([this] { publish(other, "c", number(1)); });
}

TEST_F(DumpCoordinatorTest, AnOwnerThatChangesAloneIsNotSeen) {
  expectUnseen([this] { entry("c")->setOwner(other.connection()); });
}

TEST_F(DumpCoordinatorTest, AnItemThatLeavesIsStillSeen) {
  expectUnseen([this] { remove(one, "c"); });
  EXPECT_FALSE(service->published().contains("c"));
}

TEST_F(DumpCoordinatorTest, TheNextItemInLineMayLeave) {
  const auto held = entry("b");
  const auto dump = request(asker);
  remove(one, "b");
  turn();
  EXPECT_FALSE(service->published().contains("b"));
  runAll();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DumpCoordinatorTest, TheFirstAndTheLastItemMayLeave) {
  for (const char* name : {"a", "c"}) remove(one, name);
  publish(one, "d", number(1));
  const auto dump = request(asker);
  runAll();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"b", "d"}));
}

TEST_F(DumpCoordinatorTest, AnItemThatHasLeftIsNotSeenThoughSomebodyHoldsIt) {
  const auto held = entry("b");
  remove(one, "b");
  const auto dump = request(asker);
  runAll();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"a", "c"}));
}

TEST_F(DumpCoordinatorTest, AnItemThatIsDestroyedIsStillSeen) {
  auto item = KLNPublishedObject::initWithName("d");
  desk().enter(*item);
  const auto dump = begin(asker);
  item.reset();
  runAll();
  EXPECT_THAT(namesOf(entriesOf(asker, dump)), ::testing::UnorderedElementsAre("a", "b", "c", "d"));
}

TEST_F(DumpCoordinatorTest, AnItemThatEntersIsNotSeen) {
  const auto dump = begin(asker);
  publish(one, "d", number(1));
  subscribe(other, "e");
  turn();
  update(one, "d", number(2));
  runAll();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"a", "b", "c"}));
  const auto next = request(asker);
  runAll();
  EXPECT_EQ(entriesOf(asker, next).size(), 5u);
}

TEST_F(DumpCoordinatorTest, AnItemThatLeavesAndEntersAgainIsSeenOnceAsItWas) {
  expectUnseen([this] {
    remove(one, "c");
    publish(other, "c", number(2));
  });
}

TEST_F(DumpCoordinatorTest, AnItemOutsideTheTableIsNobodysBusiness) {
  const auto dump = begin(asker);
  const auto item = service->newPublishedObjectWith(number(1), "d", 0, 0, other.connection());
  item->updateWithData(number(2));
  runAll();
  EXPECT_EQ(entriesOf(asker, dump).size(), 3u);
}

TEST_F(DumpCoordinatorTest, ConnectionsThatEndAreDescribedAsTheyWere) {
  const auto subscription = followed(other, "c", Date{1.0});
  const Value before = describe("c");
  const auto dump = begin(asker);
  // Both are gone before their clean-ups run.
  one.die();
  other.die();
  EXPECT_EQ(subscription->owner(), nullptr);
  runAll();
  EXPECT_EQ(entryOf(entriesOf(asker, dump), "c"), before);
  EXPECT_EQ(describe("c").textOf("publisher"), "<unconnected>");
}

TEST_F(DumpCoordinatorTest, AConnectionThatHasEndedIsDescribedWhileItIsThere) {
  const Value before = describe("c");
  const auto dump = request(asker);
  // A request that waits keeps the connection, beyond the dump's beginning.
  update(one, "a", number(2));
  const std::weak_ptr<xpc::Connection> connection = one.connection();
  one.die();
  EXPECT_FALSE(connection.expired());
  turn();
  EXPECT_TRUE(connection.expired());
  EXPECT_FALSE(asker.isAnswered(dump));
  runAll();
  EXPECT_EQ(entryOf(entriesOf(asker, dump), "c"), before);
}

TEST_F(DumpCoordinatorTest, AConnectionThatWasGoneIsUnconnected) {
  one.die();
  runAll();
  const auto dump = begin(asker);
  runAll();
  for (const Value& each : entriesOf(asker, dump))
    EXPECT_EQ(each.textOf("publisher"), "<unconnected>");
}

TEST_F(DumpCoordinatorTest, EachOfSeveralShowsItsOwnMoment) {
  const Value before = describe("c");
  const auto early = begin(asker);
  update(one, "c", number(2));
  update(one, "a", number(2));
  publish(other, "d", number(1));
  const auto late = request(other, /*withData=*/false);
  remove(one, "b");
  turn();
  EXPECT_FALSE(other.isAnswered(late));
  update(one, "c", number(3));
  runAll();

  const auto first = entriesOf(asker, early);
  EXPECT_THAT(namesOf(first), ::testing::UnorderedElementsAre("a", "b", "c"));
  EXPECT_EQ(entryOf(first, "c"), before);
  EXPECT_EQ(*entryOf(first, "a").find("publishedData"), number(1).value());
  const auto second = entriesOf(other, late);
  EXPECT_THAT(namesOf(second), ::testing::UnorderedElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(entryOf(second, "c").find("publishedData"), nullptr);
  EXPECT_NE(*entryOf(second, "c").find("publishDate"), *entryOf(first, "c").find("publishDate"));
}

TEST_F(DumpCoordinatorTest, AConnectionMayEndBetweenTheBeginningsOfTwo) {
  const auto early = begin(asker);
  one.die();
  const auto late = request(other);
  runAll();
  EXPECT_NE(entryOf(entriesOf(asker, early), "c").textOf("publisher"), "<unconnected>");
  EXPECT_EQ(entryOf(entriesOf(other, late), "c").textOf("publisher"), "<unconnected>");
}

TEST_F(DumpCoordinatorTest, IsDroppedWhenItsAskerEnds) {
  begin(asker);
  const std::weak_ptr<xpc::Connection> connection = asker.connection();
  asker.die();
  EXPECT_TRUE(connection.expired());
  // What is queued already and the clean-up, and nothing behind them.
  turn();
  EXPECT_EQ(executor.scheduledCount(), 0u);
  // Not described for it any more, so for the next.
  const auto next = begin(other);
  runAll();
  EXPECT_EQ(namesOf(entriesOf(other, next)), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DumpCoordinatorTest, WorksOnceWhenOneIsDroppedAndAnotherBegins) {
  // Of another's, so that what is dropped has not had its turn when the next begins.
  service->work().incremental().add([left = 2]() mutable { return --left > 0; });
  begin(asker);
  const auto next = request(other);
  asker.die();
  while (!other.isAnswered(next)) turn();
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(DumpCoordinatorTest, IsNotBegunForAnAskerThatHasEnded) {
  request(asker);
  const std::weak_ptr<xpc::Connection> connection = asker.connection();
  asker.die();
  EXPECT_FALSE(connection.expired());
  turn();
  EXPECT_TRUE(connection.expired());
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(DumpCoordinatorTest, GoesOnWhenTheAskerOfAnotherEnds) {
  begin(asker);
  const auto late = request(other);
  const auto latest = request(one);
  turn();
  asker.die();
  runAll();
  EXPECT_EQ(entriesOf(other, late).size(), 3u);
  EXPECT_EQ(entriesOf(one, latest).size(), 3u);
}

TEST_F(DumpCoordinatorTest, OfNothingIsAnsweredAtOnceWhileAnotherIsInProgress) {
  begin(asker);
  for (const char* name : {"a", "b", "c"}) remove(one, name);
  const auto late = request(other);
  runAll();
  EXPECT_THAT(entriesOf(other, late), IsEmpty());
}

TEST_F(DumpCoordinatorTest, ItemsMayOutliveIt) {
  auto desk = std::make_shared<DumpCoordinator>(
      std::make_shared<IncrementalWorkQueue>(SerialQueue::create("test", executor)));
  const auto item = KLNPublishedObject::initWithName("d");
  desk->enter(*item);
  desk->begin(/*withData=*/false, nullptr,
              DumpCoordinator::Reply::to([](const Array&, const Error&) {}));
  desk.reset();
  item->setLastUpdated(Date{1.0});
  EXPECT_EQ(item->lastUpdated(), Date{1.0});
}

}  // namespace
}  // namespace keel
