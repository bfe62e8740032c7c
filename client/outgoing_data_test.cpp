// SPDX-License-Identifier: Apache-2.0
#include "client/outgoing_data.h"

#include <gtest/gtest.h>

#include <limits>

#include "runtime/wire/limits.h"

namespace keel {
namespace {

using Kind = ClientError::Kind;

// Returns a map that holds `depth` nested lists.
Value nested(std::size_t depth) {
  Value value = 0;
  for (std::size_t i = 0; i < depth; ++i) {
    Value::List around;
    around.push_back(std::move(value));
    value = Value(std::move(around));
  }
  Value::Map map(1);
  map.front() = {"a", std::move(value)};
  return Value(std::move(map));
}

Kind kindOf(const Value& data) {
  return encodeData(data, 0).error().kind();
}

TEST(EncodeData, AcceptsMapsAndNull) {
  const Value map = Value::map({{"a", 1}, {"b", Value::list({Date{0.5}, nullptr})}});
  EXPECT_EQ(encodeData(map, 0)->value(), map);
  EXPECT_TRUE(encodeData(nullptr, 0)->isNull());
}

TEST(EncodeData, OtherKindsAreRefused) {
  EXPECT_EQ(kindOf(1), Kind::badArgument);
  EXPECT_EQ(kindOf("text"), Kind::badArgument);
  EXPECT_EQ(kindOf(Value::list({})), Kind::badArgument);
}

TEST(EncodeData, Depth64WorksAnd65IsRefused) {
  EXPECT_TRUE(encodeData(nested(xpc::limits::kDepth - 1), 0).has_value());
  EXPECT_EQ(kindOf(nested(xpc::limits::kDepth)), Kind::badArgument);
  EXPECT_EQ(kindOf(nested(1000)), Kind::badArgument);
}

TEST(EncodeData, InvalidDatesAreRefused) {
  EXPECT_EQ(kindOf(Value::map({{"a", Date{std::numeric_limits<double>::quiet_NaN()}}})),
            Kind::badArgument);
  EXPECT_EQ(
      kindOf(Value::map({{"a", Value::list({Date{std::numeric_limits<double>::infinity()}})}})),
      Kind::badArgument);
}

TEST(EncodeData, TextThatIsNotUtf8IsRefused) {
  EXPECT_EQ(kindOf(Value::map({{"a", "\xff"}})), Kind::badArgument);
  EXPECT_EQ(kindOf(Value::map({{"\xc3", 1}})), Kind::badArgument);
}

TEST(EncodeData, TheMessageSizeIsTheLimit) {
  const auto ofBytes = [](std::size_t size) { return Value::map({{"a", std::string(size, 'x')}}); };
  const std::size_t largest = xpc::limits::kFrameBytes - 256 - 8;
  EXPECT_TRUE(encodeData(ofBytes(largest), 0).has_value());
  EXPECT_EQ(kindOf(ofBytes(largest + 1)), Kind::tooLarge);
  EXPECT_EQ(encodeData(ofBytes(largest), 1).error().kind(), Kind::tooLarge);
}

TEST(CheckText, AcceptsNullAndEmptyAndRefusesInvalidUtf8) {
  EXPECT_FALSE(checkText(nullptr, "the name"));
  EXPECT_FALSE(checkText("", "the name"));
  EXPECT_EQ(checkText("\xff", "the name")->kind(), Kind::badArgument);
}

}  // namespace
}  // namespace keel
