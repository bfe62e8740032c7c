// SPDX-License-Identifier: Apache-2.0
#include "client/dump_entry.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

Value entry(Value publisher, Value date, Value subscribers) {
  return Value::map({{"name", "a"},
                     {"publisher", std::move(publisher)},
                     {"publishDate", std::move(date)},
                     {"subscribers", std::move(subscribers)}});
}

TEST(ReadDump, ReadsPublishersSubscribersAndData) {
  const Value subscriber =
      Value::map({{"subscriber", "<connection 2>"}, {"updateDate", Date{2.5}}});
  Value::Map described =
      *entry("<connection 1>", Date{1}, Value::list({subscriber})).as<Value::Map>();
  described.push_back({"publishedData", Value::map({{"n", 1}})});
  const auto entries = readDump(Array(Value::list({Value(described)})));
  ASSERT_TRUE(entries.has_value());
  const DumpEntry expected{
      "a", "<connection 1>", Date{1}, {{"<connection 2>", Date{2.5}}}, Value::map({{"n", 1}})};
  EXPECT_EQ(entries->at(0), expected);
}

TEST(ReadDump, PlaceholdersAreReadAsAbsent) {
  const Value subscriber =
      Value::map({{"subscriber", "<unconnected>"}, {"updateDate", "<never updated>"}});
  Value::Map described =
      *entry("<unconnected>", "<never published>", Value::list({subscriber})).as<Value::Map>();
  described.push_back({"publishedData", "<no data>"});
  const auto entries = readDump(Array(Value::list({Value(described)})));
  ASSERT_TRUE(entries.has_value());
  const DumpEntry expected{"a", {}, {}, {{{}, {}}}, {}};
  EXPECT_EQ(entries->at(0), expected);
}

TEST(ReadDump, AnEmptyDumpHasNoEntries) {
  EXPECT_TRUE(readDump(Array(Value::list({})))->empty());
  EXPECT_TRUE(readDump(nullptr)->empty());
}

TEST(ReadDump, MalformedDumpsAreRefused) {
  const Value others[] = {Value("text"),
                          Value::map({}),
                          entry(1, Date{1}, Value::list({})),
                          entry("p", 1, Value::list({})),
                          entry("p", Date{1}, "none"),
                          entry("p", Date{1}, Value::list({"x"}))};
  for (const Value& other : others) {
    EXPECT_FALSE(readDump(Array(Value::list({other}))).has_value()) << other.description();
  }
}

}  // namespace
}  // namespace keel
