// SPDX-License-Identifier: Apache-2.0
#include "notify/dump_coordinator.h"

#include <algorithm>

#include "notify/incremental_work_queue.h"
#include "notify/notify_fixture.h"

namespace keel {
namespace {

// Dumps of all items in steps of one item each. The item that a test changes or removes is captured
// last.
class DumpOfAllItems : public NotifyTest {
 protected:
  DumpOfAllItems() {
    coordinator().setStepWork(1);
    for (const char* name : {"a", "b", "c"}) publish(one, name, number(1));
    runAll();
    entry("c")->setLastUpdated(Date{1.0});
    clearRecords();
  }
  // Runs one turn of the input queue, then the work it caused on the connections.
  void turn() {
    executor.runOne();
    connections.runAll();
  }
  void runAll() {
    while (executor.scheduledCount() > 0) turn();
  }
  DumpCoordinator& coordinator() { return service->work().dumps(); }
  void clearRecords() {
    for (NotifyClient* client : {&one, &other, &asker}) {
      if (client->connection()) client->take();
    }
    log.take();
  }
  // Subscribes `client` to `name` and dates its last delivery.
  std::shared_ptr<KLNSubscriptionObject> followed(NotifyClient& client, const Name& name,
                                                  Date date) {
    subscribe(client, name);
    runAll();
    const auto subscription = entry(name)->subscriberForConnection(client.connection());
    subscription->setLastUpdated(date);
    clearRecords();
    return subscription;
  }

  // Requests a dump; begin() also runs its first step and everything requested before.
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
  // Returns the entry of a dump of one name.
  Value describe(Name name) {
    const auto id = asker.request<&NotifyProxy::dumpNotification>(std::move(name), true);
    turn();
    return entriesOf(asker, id).front();
  }

  // Changes "c" between two steps: neither `change` nor what it queued shows in the dump, but both
  // do afterwards.
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

TEST_F(DumpOfAllItems, OtherRequestsRunBetweenSteps) {
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

TEST_F(DumpOfAllItems, OneStepIsAnsweredInOneBlock) {
  coordinator().setStepWork(3);
  const auto fits = request(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, fits).size(), 3u);
  EXPECT_EQ(executor.scheduledCount(), 0u);

  coordinator().setStepWork(2);
  const auto exceeds = begin(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, exceeds).size(), 3u);
}

TEST_F(DumpOfAllItems, TheDefaultStepCapturesSixtyFourItems) {
  coordinator().setStepWork(DumpCoordinator::kStepWork);
  for (int i = 3; i < 64; ++i) publish(one, Name(std::to_string(i)), nullptr);
  runAll();
  const auto fits = request(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, fits).size(), 64u);
  publish(one, "one more", nullptr);
  runAll();
  begin(asker);
}

TEST_F(DumpOfAllItems, SubscribersCountAsWork) {
  followed(other, "a", Date{1.0});
  coordinator().setStepWork(3);
  const auto dump = begin(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, dump).size(), 3u);
}

TEST_F(DumpOfAllItems, LargeDataCountAsWork) {
  coordinator().setStepWork(3);
  update(one, "a", Dictionary(Value::map({{"text", std::string(4096, 'x')}})));
  runAll();
  const auto dump = begin(asker);
  turn();
  EXPECT_EQ(entriesOf(asker, dump).size(), 3u);
}

TEST_F(DumpOfAllItems, AnUpdateIsNotSeen) {
  expectUnseen([this] { update(one, "c", number(2)); });
}

TEST_F(DumpOfAllItems, ADeliveredUpdateIsNotSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] { update(one, "c", number(1)); });
}

TEST_F(DumpOfAllItems, AChangedDateIsNotSeen) {
  expectUnseen([this] { entry("c")->setLastUpdated(Date{2.0}); });
}

TEST_F(DumpOfAllItems, AChangedNameIsNotSeen) {
  expectUnseen([this] { entry("c")->setName("d"); });
}

TEST_F(DumpOfAllItems, AnAddedSubscriberIsNotSeen) {
  expectUnseen([this] { subscribe(other, "c"); });
}

TEST_F(DumpOfAllItems, ARemovedSubscriberIsStillSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] { unsubscribe(other, "c"); });
}

TEST_F(DumpOfAllItems, ALaterFirstDeliveryIsNotSeen) {
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

TEST_F(DumpOfAllItems, ADeliveredErrorIsNotSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] { entry("c")->updateWithError(Error("test", 1)); });
}

// A delivery of a later change may precede the answer, which does not show it.
TEST_F(DumpOfAllItems, ALaterDeliveryToTheAskerMayPrecedeTheAnswer) {
  followed(asker, "c", Date{1.0});
  const Value before = describe("c");
  clearRecords();
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

// Updates served before the dump began are delivered before its answer.
TEST_F(DumpOfAllItems, EarlierDeliveriesPrecedeTheAnswer) {
  followed(asker, "c", Date{1.0});
  update(one, "c", number(2));
  const auto dump = request(asker);
  runAll();
  EXPECT_EQ(*entryOf(entriesOf(asker, dump), "c").find("publishedData"), number(2).value());
  ASSERT_EQ(asker.received().size(), 2u);
  EXPECT_EQ(asker.received().front().item, number(2));
  EXPECT_EQ(asker.received().back().requestId, dump);
}

TEST_F(DumpOfAllItems, ABatchOfUpdatesIsNotSeen) {
  followed(other, "c", Date{1.0});
  expectUnseen([this] {
    for (int value = 2; value < 5; ++value) update(one, "c", number(value));
  });
}

TEST_F(DumpOfAllItems, AChangedSubscriberIsNotSeen) {
  const auto subscription = followed(other, "c", Date{1.0});
  expectUnseen([this, subscription] { subscription->setOwner(one.connection()); });
}

TEST_F(DumpOfAllItems, ANewPublisherIsNotSeen) {
  followed(other, "c", Date{1.0});
  remove(one, "c");
  runAll();
  expectUnseen([this] { publish(other, "c", number(1)); });
}

TEST_F(DumpOfAllItems, AChangedOwnerIsNotSeen) {
  expectUnseen([this] { entry("c")->setOwner(other.connection()); });
}

TEST_F(DumpOfAllItems, ARemovedItemIsStillSeen) {
  expectUnseen([this] { remove(one, "c"); });
  EXPECT_FALSE(service->published().contains("c"));
}

TEST_F(DumpOfAllItems, TheNextItemMayBeRemoved) {
  const auto held = entry("b");
  const auto dump = request(asker);
  remove(one, "b");
  turn();
  EXPECT_FALSE(service->published().contains("b"));
  runAll();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DumpOfAllItems, TheFirstAndTheLastItemMayBeRemoved) {
  for (const char* name : {"a", "c"}) remove(one, name);
  publish(one, "d", number(1));
  const auto dump = request(asker);
  runAll();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"b", "d"}));
}

TEST_F(DumpOfAllItems, AnItemRemovedBeforeIsNotSeenThoughItLives) {
  const auto held = entry("b");
  remove(one, "b");
  const auto dump = request(asker);
  runAll();
  EXPECT_EQ(namesOf(entriesOf(asker, dump)), (std::vector<std::string>{"a", "c"}));
}

TEST_F(DumpOfAllItems, ADestroyedItemIsStillSeen) {
  auto item = KLNPublishedObject::initWithName("d");
  coordinator().enter(*item);
  const auto dump = begin(asker);
  item.reset();
  runAll();
  EXPECT_THAT(namesOf(entriesOf(asker, dump)), ::testing::UnorderedElementsAre("a", "b", "c", "d"));
}

TEST_F(DumpOfAllItems, AnAddedItemIsNotSeen) {
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

TEST_F(DumpOfAllItems, AnItemRemovedAndAddedAgainIsSeenOnceAsItWas) {
  expectUnseen([this] {
    remove(one, "c");
    publish(other, "c", number(2));
  });
}

TEST_F(DumpOfAllItems, AnItemOutsideTheTableIsIgnored) {
  const auto dump = begin(asker);
  const auto item = service->newPublishedObjectWith(number(1), "d", 0, 0, other.connection());
  item->updateWithData(number(2));
  runAll();
  EXPECT_EQ(entriesOf(asker, dump).size(), 3u);
}

TEST_F(DumpOfAllItems, ConnectionsThatEndAreDescribedAsTheyWere) {
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

TEST_F(DumpOfAllItems, AnEndedConnectionIsDescribedWhileItLives) {
  const Value before = describe("c");
  const auto dump = request(asker);
  // A queued request keeps the connection alive when the dump begins.
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

TEST_F(DumpOfAllItems, ADestroyedConnectionIsUnconnected) {
  one.die();
  runAll();
  const auto dump = begin(asker);
  runAll();
  for (const Value& each : entriesOf(asker, dump))
    EXPECT_EQ(each.textOf("publisher"), "<unconnected>");
}

TEST_F(DumpOfAllItems, ConcurrentDumpsAreSeparateSnapshots) {
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

TEST_F(DumpOfAllItems, AConnectionMayEndBetweenTwoRequests) {
  const auto early = begin(asker);
  one.die();
  const auto late = request(other);
  runAll();
  EXPECT_NE(entryOf(entriesOf(asker, early), "c").textOf("publisher"), "<unconnected>");
  EXPECT_EQ(entryOf(entriesOf(other, late), "c").textOf("publisher"), "<unconnected>");
}

TEST_F(DumpOfAllItems, IsDroppedWhenItsAskerEnds) {
  begin(asker);
  const std::weak_ptr<xpc::Connection> connection = asker.connection();
  asker.die();
  EXPECT_TRUE(connection.expired());
  // The blocks queued already and the clean-up, and nothing more.
  turn();
  EXPECT_EQ(executor.scheduledCount(), 0u);
  // The remaining items are captured for the next dump instead.
  const auto next = begin(other);
  runAll();
  EXPECT_EQ(namesOf(entriesOf(other, next)), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DumpOfAllItems, DoesNotWorkTwiceAfterADrop) {
  // Another client's dump comes first, so the dropped one has not run when the next begins.
  service->work().incremental().add([left = 2]() mutable { return --left > 0; });
  begin(asker);
  const auto next = request(other);
  asker.die();
  while (!other.isAnswered(next)) turn();
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(DumpOfAllItems, IsNotBegunForAnAskerThatHasEnded) {
  request(asker);
  const std::weak_ptr<xpc::Connection> connection = asker.connection();
  asker.die();
  EXPECT_FALSE(connection.expired());
  turn();
  EXPECT_TRUE(connection.expired());
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(DumpOfAllItems, ContinuesWhenTheAskerOfAnotherEnds) {
  begin(asker);
  const auto late = request(other);
  const auto latest = request(one);
  turn();
  asker.die();
  runAll();
  EXPECT_EQ(entriesOf(other, late).size(), 3u);
  EXPECT_EQ(entriesOf(one, latest).size(), 3u);
}

TEST_F(DumpOfAllItems, OfNothingIsAnsweredAtOnceWhileAnotherIsInProgress) {
  begin(asker);
  for (const char* name : {"a", "b", "c"}) remove(one, name);
  const auto late = request(other);
  runAll();
  EXPECT_THAT(entriesOf(other, late), IsEmpty());
}

TEST_F(DumpOfAllItems, ItemsMayOutliveIt) {
  auto dumps = std::make_shared<DumpCoordinator>(
      std::make_shared<IncrementalWorkQueue>(SerialQueue::create("test", executor)));
  const auto item = KLNPublishedObject::initWithName("d");
  dumps->enter(*item);
  dumps->begin(/*withData=*/false, nullptr,
               DumpCoordinator::Reply::to([](const Array&, const Error&) {}));
  dumps.reset();
  item->setLastUpdated(Date{1.0});
  EXPECT_EQ(item->lastUpdated(), Date{1.0});
}

}  // namespace
}  // namespace keel
