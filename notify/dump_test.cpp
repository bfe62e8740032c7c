// SPDX-License-Identifier: Apache-2.0
#include "notify/notify_fixture.h"

namespace keel {
namespace {

class NotificationDump : public NotifyTest {
 protected:
  // Runs all queued blocks, then a dump, which must be answered.
  std::pair<Value, Error> dump(Name name, bool withData = false) {
    const auto id = one.request<&NotifyProxy::dumpNotification>(std::move(name), withData);
    EXPECT_FALSE(one.isAnswered(id));
    executor.runAll();
    const auto results = one.resultsOf<&NotifyProxy::dumpNotification>(id);
    EXPECT_TRUE(results);
    if (!results) return {};
    EXPECT_FALSE(std::get<0>(*results).isNull());
    return {std::get<0>(*results).value(), std::get<1>(*results)};
  }
  // Returns the entries of a dump that must succeed.
  Value::List entries(Name name, bool withData = false) {
    const auto [array, error] = dump(std::move(name), withData);
    EXPECT_FALSE(error);
    return array.isList() ? *array.as<Value::List>() : Value::List();
  }
  static std::vector<std::string> keysOf(const Value& entry) {
    std::vector<std::string> keys;
    for (const Member& member : *entry.as<Value::Map>()) keys.push_back(member.key);
    return keys;
  }

  NotifyClient one{executor, FakeClient::identity(11)};
  NotifyClient other{executor, FakeClient::identity(12)};
};

TEST_F(NotificationDump, AllOfNothingIsAnEmptyArrayWithoutAnError) {
  const auto [array, error] = dump("_all", true);
  EXPECT_EQ(array, Value::list({}));
  EXPECT_FALSE(error);
}

TEST_F(NotificationDump, DescribesAnItemInFull) {
  publish(one, "n", number(1));
  subscribe(other, "n");
  executor.runAll();
  entry("n")->setLastUpdated(Date{1000.5});
  entry("n")->subscribers()->allObjects().front()->setLastUpdated(Date{2000.25});
  const auto all = entries("n", true);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all.front(), Value::map({
                             {"name", "n"},
                             {"publisher", one.connection()->description()},
                             {"publishDate", Date{1000.5}},
                             {"subscribers", Value::list({Value::map({
                                                 {"subscriber", other.connection()->description()},
                                                 {"updateDate", Date{2000.25}},
                                             })})},
                             {"publishedData", Value::map({{"number", 1}})},
                         }));
}

TEST_F(NotificationDump, KeysAreOrdered) {
  publish(one, "n", number(1));
  subscribe(other, "n");
  executor.runAll();
  const auto all = entries("n", true);
  EXPECT_THAT(keysOf(all.front()),
              ElementsAre("name", "publisher", "publishDate", "subscribers", "publishedData"));
  const Value& subscriber = all.front().find("subscribers")->as<Value::List>()->front();
  EXPECT_THAT(keysOf(subscriber), ElementsAre("subscriber", "updateDate"));
}

TEST_F(NotificationDump, WithoutTheFlagThereIsNoDataKey) {
  publish(one, "n", number(1));
  executor.runAll();
  EXPECT_THAT(keysOf(entries("n", false).front()),
              ElementsAre("name", "publisher", "publishDate", "subscribers"));
  EXPECT_THAT(keysOf(entries("_all", false).front()),
              ElementsAre("name", "publisher", "publishDate", "subscribers"));
}

TEST_F(NotificationDump, UnknownValuesHaveAPlaceholderText) {
  subscribe(other, "n");
  executor.runAll();
  const auto all = entries("n", true);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all.front(), Value::map({
                             {"name", "n"},
                             {"publisher", "<unconnected>"},
                             {"publishDate", "<never published>"},
                             {"subscribers", Value::list({Value::map({
                                                 {"subscriber", other.connection()->description()},
                                                 {"updateDate", "<never updated>"},
                                             })})},
                             {"publishedData", "<no data>"},
                         }));
}

TEST_F(NotificationDump, AnItemWithoutSubscribersHasAnEmptyList) {
  publish(one, "n", nullptr);
  executor.runAll();
  const auto all = entries("n", true);
  EXPECT_EQ(*all.front().find("subscribers"), Value::list({}));
  EXPECT_EQ(*all.front().find("publishedData"), Value("<no data>"));
}

TEST_F(NotificationDump, LostConnectionsAreUnconnected) {
  publish(one, "n", number(1));
  NotifyClient third(executor);
  publish(third, "m", number(2));
  subscribe(third, "n");
  executor.runAll();
  // The connection is gone, its clean-up has not run.
  const auto id = one.request<&NotifyProxy::dumpNotification>("_all", false);
  third.die();
  executor.runAll();
  const Value dumped = std::get<0>(*one.resultsOf<&NotifyProxy::dumpNotification>(id)).value();
  for (const Value& item : *dumped.as<Value::List>()) {
    if (item.textOf("name") == "m") {
      EXPECT_EQ(item.textOf("publisher"), "<unconnected>");
    } else {
      EXPECT_EQ(item.find("subscribers")->as<Value::List>()->front().textOf("subscriber"),
                "<unconnected>");
    }
  }
  // After it the placeholder still has its date.
  EXPECT_NE(entries("m").front().find("publishDate")->as<Date>(), nullptr);
  EXPECT_EQ(entries("m").front().textOf("publisher"), "<unconnected>");
}

TEST_F(NotificationDump, AllDescribesEveryItem) {
  publish(one, "a", number(1));
  publish(other, "b", number(2));
  subscribe(other, "c");
  executor.runAll();
  std::vector<std::string> names;
  for (const Value& item : entries("_all")) names.emplace_back(item.textOf("name"));
  EXPECT_THAT(names, ::testing::UnorderedElementsAre("a", "b", "c"));
}

TEST_F(NotificationDump, AllIsNotTheItemOfThatName) {
  publish(one, "_all", number(1));
  publish(one, "a", number(2));
  executor.runAll();
  EXPECT_EQ(entries("_all").size(), 2u);
  EXPECT_EQ(dump("_ALL").second.code(), 11);
}

TEST_F(NotificationDump, AnUnknownNameIsAnEmptyArrayAndNotFound) {
  publish(one, "a", number(1));
  const auto [array, error] = dump("b", true);
  EXPECT_EQ(array, Value::list({}));
  EXPECT_EQ(error.domain(), String(KLNErrorDomain));
  EXPECT_EQ(error.code(), 11);
  EXPECT_EQ(error.userInfo().value(), Value::map({{"NSLocalizedDescription", "b not found"}}));
}

TEST_F(NotificationDump, ANullNameIsNotFound) {
  publish(one, "", number(1));
  const auto [array, error] = dump(nullptr);
  EXPECT_EQ(array, Value::list({}));
  EXPECT_EQ(error.userInfo().value(), Value::map({{"NSLocalizedDescription", "(null) not found"}}));
}

TEST_F(NotificationDump, AnItemWithoutNameAndSetIsDescribedUnderItsEntry) {
  service->subscribeTo("n", one.connection(), 0, nullptr);
  const auto all = entries("n");
  ASSERT_EQ(all.size(), 1u);
  EXPECT_TRUE(all.front().find("name")->isNull());
  EXPECT_EQ(*all.front().find("subscribers"), Value::list({}));
}

TEST_F(NotificationDump, ChangesAndLogsNothing) {
  publish(one, "n", number(1));
  subscribe(other, "n");
  executor.runAll();
  const auto item = entry("n");
  item->setLastUpdated(Date{1.0});
  item->subscribers()->allObjects().front()->setLastUpdated(Date{2.0});
  other.take();
  const LogRecorder everything(LogLevel::debug);
  dump("n", true);
  dump("_all", true);
  dump("unknown");
  EXPECT_THAT(everything.lines(), IsEmpty());
  EXPECT_EQ(item->lastUpdated(), Date{1.0});
  EXPECT_EQ(item->subscribers()->allObjects().front()->lastUpdated(), Date{2.0});
  EXPECT_THAT(other.received(), IsEmpty());
  EXPECT_EQ(service->published().size(), 1u);
}

TEST_F(NotificationDump, IsAnsweredAfterEarlierRequests) {
  publish(one, "n", number(1));
  const auto all = entries("n");
  EXPECT_EQ(all.size(), 1u);
  EXPECT_EQ(one.received().front().requestId, 1u);
}

TEST_F(NotificationDump, PublishedDataAreNotReencoded) {
  // Floating point in 16 bits: re-encoding would make it longer.
  const std::vector<std::byte> encoded = {std::byte{0xa1}, std::byte{0x61}, std::byte{'h'},
                                          std::byte{0xf9}, std::byte{0x3c}, std::byte{0x00}};
  publish(one, "n", Dictionary(Buffer::copyOf(encoded)));
  const auto id = one.request<&NotifyProxy::dumpNotification>("n", true);
  executor.runAll();
  const Array dumped = std::get<0>(*one.resultsOf<&NotifyProxy::dumpNotification>(id));
  EXPECT_EQ(*dumped.value().as<Value::List>()->front().find("publishedData"),
            Value::map({{"h", 1.0}}));
  EXPECT_NE(std::ranges::search(dumped.encoded(), encoded).begin(), dumped.encoded().end());
}

TEST_F(NotificationDump, ALargeRegistryIsComplete) {
  std::vector<std::unique_ptr<NotifyClient>> followers;
  for (int i = 0; i < 40; ++i) {
    followers.push_back(std::make_unique<NotifyClient>(executor));
    subscribe(*followers.back(), "n");
  }
  for (int i = 0; i < 300; ++i)
    publish(one, Name(std::string("item ") + std::to_string(i)), number(i));
  executor.runAll();
  EXPECT_EQ(entries("_all", true).size(), 301u);
  const auto followed = entries("n").front();
  const auto* subscribers = followed.find("subscribers")->as<Value::List>();
  ASSERT_EQ(subscribers->size(), 40u);
  for (std::size_t i = 0; i < 40; ++i) {
    EXPECT_EQ((*subscribers)[i].textOf("subscriber"), followers[i]->connection()->description());
  }
}

}  // namespace
}  // namespace keel
