// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/value.h"

#include <gtest/gtest.h>

#include <limits>

#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

TEST(Value, HoldsTheKindItWasBuiltFrom) {
  EXPECT_TRUE(Value().isNull());
  EXPECT_TRUE(Value(nullptr).isNull());
  EXPECT_NE(Value(true).as<bool>(), nullptr);
  EXPECT_EQ(*Value(-3).as<std::int64_t>(), -3);
  EXPECT_EQ(*Value(3U).as<std::int64_t>(), 3);
  EXPECT_EQ(*Value(0.5).as<double>(), 0.5);
  EXPECT_EQ(*Value("text").as<std::string>(), "text");
  EXPECT_EQ(*Value(bytesOfHex("01")).as<Value::Bytes>(), bytesOfHex("01"));
  EXPECT_EQ(*Value(Date{5}).as<Date>(), Date{5});
  EXPECT_TRUE(Value::list({}).isList());
  EXPECT_TRUE(Value::map({}).isMap());
  EXPECT_EQ(Value(Error("d", 4)).as<Error>()->code(), 4);
}

TEST(Value, AsReturnsNullForAnotherKind) {
  EXPECT_EQ(Value(1).as<double>(), nullptr);
  EXPECT_EQ(Value("a").as<Value::Bytes>(), nullptr);
  EXPECT_FALSE(Value(1).isNull());
}

TEST(Value, UnsignedNumbersThatFitTheSignedKindAreEqualToIt) {
  constexpr std::uint64_t kLargestSigned = std::numeric_limits<std::int64_t>::max();
  EXPECT_TRUE(Value(kLargestSigned) == Value(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(*Value(kLargestSigned + 1).as<std::uint64_t>(), kLargestSigned + 1);
  EXPECT_EQ(Value(kLargestSigned + 1).as<std::int64_t>(), nullptr);
}

template <class Integer>
class ValueOf : public testing::Test {};
using Integers = testing::Types<char, signed char, unsigned char, short, unsigned short, int,
                                unsigned, long, unsigned long, long long, unsigned long long>;
TYPED_TEST_SUITE(ValueOf, Integers);

TYPED_TEST(ValueOf, EveryIntegralTypeHoldsItsNumber) {
  using Limits = std::numeric_limits<TypeParam>;
  EXPECT_EQ(*Value(TypeParam{7}).template as<std::int64_t>(), 7);
  EXPECT_EQ(*Value(Limits::min()).template as<std::int64_t>(),
            static_cast<std::int64_t>(Limits::min()));
  const Value largest = Limits::max();
  if constexpr (std::is_unsigned_v<TypeParam> && sizeof(TypeParam) == 8) {
    EXPECT_EQ(*largest.template as<std::uint64_t>(), Limits::max());
  } else {
    EXPECT_EQ(*largest.template as<std::int64_t>(), static_cast<std::int64_t>(Limits::max()));
  }
}

TEST(Value, NoErrorIsNull) {
  EXPECT_TRUE(Value(Error()).isNull());
}

TEST(Value, CopiesAreDeep) {
  Value copy;
  {
    const Value original = Value::map({{"list", Value::list({1, "two"})}});
    copy = original;
  }
  EXPECT_TRUE(copy == Value::map({{"list", Value::list({1, "two"})}}));
}

TEST(Value, ComparesKindAndContent) {
  EXPECT_FALSE(Value(1) == Value(1.0));
  EXPECT_FALSE(Value(1) == Value(true));
  EXPECT_FALSE(Value(Date{1}) == Value(1.0));
  EXPECT_FALSE(Value::list({1, 2}) == Value::list({2, 1}));
  EXPECT_FALSE(Value::map({{"a", 1}, {"b", 2}}) == Value::map({{"b", 2}, {"a", 1}}));
}

TEST(ValueFind, ReturnsTheMemberOfThatKey) {
  const Value map = Value::map({{"host", "a"}, {"port", 80}});
  EXPECT_TRUE(*map.find("port") == Value(80));
  EXPECT_EQ(map.find("Port"), nullptr);
  EXPECT_EQ(Value("host").find("host"), nullptr);
}

TEST(ValueFind, ReturnsTheLastOfDuplicateMembers) {
  const Value map = Value::map({{"a", 1}, {"a", 2}});
  EXPECT_TRUE(*map.find("a") == Value(2));
  EXPECT_EQ(map.as<Value::Map>()->size(), 2U);
}

TEST(ValueTextOf, FallsBackIfThereIsNoText) {
  const Value map = Value::map({{"host", "a"}, {"port", 80}});
  EXPECT_EQ(map.textOf("host", "none"), "a");
  EXPECT_EQ(map.textOf("port", "none"), "none");
  EXPECT_EQ(map.textOf("path"), "");
  EXPECT_EQ(Value::map({{"a", "x"}, {"a", 1}}).textOf("a", "none"), "none");
}

TEST(ValueDescription, IsDiagnosticNotation) {
  const Value value = Value::map({
      {"null", nullptr},
      {"list", Value::list({true, false, -1, std::numeric_limits<std::uint64_t>::max()})},
      {"bytes", bytesOfHex("00ff")},
      {"empty", Value::list({Value::map({}), Value::list({}), "", Value::Bytes()})},
  });
  EXPECT_EQ(
      value.description(),
      R"({"null": null, "list": [true, false, -1, 18446744073709551615], "bytes": h'00ff', "empty": [{}, [], "", h'']})");
}

TEST(ValueDescription, DistinguishesRealNumbersFromIntegers) {
  EXPECT_EQ(Value(1.5).description(), "1.5");
  EXPECT_EQ(Value(1.0).description(), "1.0");
  EXPECT_EQ(Value(-0.0).description(), "-0.0");
  EXPECT_EQ(Value(1e300).description(), "1.0e+300");
  EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).description(), "NaN");
  EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).description(), "Infinity");
  EXPECT_EQ(Value(-std::numeric_limits<double>::infinity()).description(), "-Infinity");
}

TEST(ValueDescription, EscapesControlCharacters) {
  EXPECT_EQ(Value("a\"b\\c\n\r\t\b\f").description(), R"("a\"b\\c\n\r\t\b\f")");
  EXPECT_EQ(Value(std::string_view("\x1b[0m\0\x7f", 6)).description(),
            R"("\u001b[0m\u0000\u007f")");
  EXPECT_EQ(Value("\u0080\u009f\u00a0").description(), "\"\\u0080\\u009f\u00a0\"");
  EXPECT_EQ(Value("\u00e9\u4e2d").description(), "\"\u00e9\u4e2d\"");
}

TEST(ValueDescription, ShowsDatesAndErrorsAsTags) {
  EXPECT_EQ(Value(Date{1732.5}).description(), "1(1732.5)");
  EXPECT_EQ(Value(Date{1732}).description(), "1(1732)");
  EXPECT_EQ(Value(Date{1e300}).description(), "1(1.0e+300)");
  EXPECT_EQ(Value(Error("d", 5)).description(), R"(51741(["d", 5, null]))");
  const Error error("d", 5, Dictionary(Value::map({{"a", Value(Error("e", -6))}})));
  EXPECT_EQ(Value(error).description(), R"(51741(["d", 5, {"a": 51741(["e", -6, null])}]))");
}

}  // namespace
}  // namespace keel
