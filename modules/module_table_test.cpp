// SPDX-License-Identifier: Apache-2.0
#include "modules/module_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/foundation/value.h"

namespace keel {
namespace {

using ::testing::ElementsAre;

TEST(ModuleTable, BeginsEmptyButNotNull) {
  const ModuleTable table;
  EXPECT_EQ(table.count(), 0u);
  EXPECT_TRUE(table.at("a").isNull());
  EXPECT_FALSE(table.dictionary().isNull());
  EXPECT_EQ(table.dictionary().value(), Value::map({}));
}

TEST(ModuleTable, EntriesAreSetReplacedAndEncoded) {
  ModuleTable table;
  table.set("b", "1");
  table.set("a", "2");
  table.set("b", "3");
  EXPECT_EQ(table.count(), 2u);
  EXPECT_EQ(table.at("b"), String("3"));
  EXPECT_TRUE(table.at("c").isNull());
  EXPECT_TRUE(table.at(nullptr).isNull());
  EXPECT_THAT(table.allKeys(), ElementsAre(String("a"), String("b")));
  EXPECT_EQ(table.dictionary().value(), Value::map({{"a", "2"}, {"b", "3"}}));
}

TEST(ModuleTable, NullTextRemovesTheKey) {
  ModuleTable table;
  table.set("a", "1");
  table.set("a", nullptr);
  table.set("b", nullptr);
  EXPECT_EQ(table.count(), 0u);
  EXPECT_EQ(table.dictionary().value(), Value::map({}));
}

TEST(ModuleTable, AnEmptyTextIsAText) {
  ModuleTable table;
  table.set("a", "");
  EXPECT_EQ(table.dictionary().value(), Value::map({{"a", ""}}));
}

}  // namespace
}  // namespace keel
