// SPDX-License-Identifier: Apache-2.0
#include "tools/json_value.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

namespace keel {
namespace {

using testing::HasSubstr;

// Reads `json` and writes it again.
std::string again(std::string_view json) {
  const auto value = valueOfJson(json);
  return value ? jsonOf(*value) : "refused: " + value.error();
}

std::string faultOf(std::string_view json) {
  const auto value = valueOfJson(json);
  return value ? "accepted" : value.error();
}

TEST(JsonOfValue, PlainKindsAreWrittenDirectly) {
  const Value value = Value::map(
      {{"b", true}, {"a", Value::list({1, -2, 1.5, "x", nullptr})}, {"", Value::map({})}});
  EXPECT_EQ(jsonOf(value), R"({"b":true,"a":[1,-2,1.5,"x",null],"":{}})");
}

TEST(JsonOfValue, IntegersAreExactToTheirLimits) {
  EXPECT_EQ(jsonOf(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(jsonOf(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(valueOfJson("18446744073709551615"), Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(valueOfJson("-9223372036854775808"), Value(std::numeric_limits<std::int64_t>::min()));
}

TEST(ValueOfJson, IntegersBeyondTheLimitsAreRefused) {
  EXPECT_THAT(faultOf("18446744073709551616"), HasSubstr("2^64"));
  EXPECT_THAT(faultOf("-9223372036854775809"), HasSubstr("-2^63"));
}

TEST(JsonOfValue, FloatingPointNumbersStayFloatingPoint) {
  EXPECT_EQ(again("1.0"), "1.0");
  EXPECT_EQ(again("-0.0"), "-0.0");
  EXPECT_EQ(again("0.1"), "0.1");
  EXPECT_EQ(again("1e300"), "1e+300");
}

TEST(JsonOfValue, NonFiniteNumbersAreEscaped) {
  for (const char* json :
       {R"({"$real":"NaN"})", R"({"$real":"Infinity"})", R"({"$real":"-Infinity"})"})
    EXPECT_EQ(again(json), json);
  EXPECT_TRUE(std::isnan(*valueOfJson(R"({"$real":"NaN"})")->as<double>()));
}

TEST(JsonOfValue, DatesBytesAndErrorsAreEscaped) {
  const Value value = Value::map({{"when", Date{1.5}},
                                  {"then", Date{1'700'000'000}},
                                  {"bytes", Value::Bytes{std::byte{0}, std::byte{255}}},
                                  {"error", Error("D", 9, Dictionary(Value::map({{"k", "v"}})))},
                                  {"bare", Error("D", -1)}});
  EXPECT_EQ(jsonOf(value),
            R"({"when":{"$date":1.5},"then":{"$date":1700000000},"bytes":{"$data":"AP8="},)"
            R"("error":{"$error":{"domain":"D","code":9,"userInfo":{"k":"v"}}},)"
            R"("bare":{"$error":{"domain":"D","code":-1,"userInfo":null}}})");
  EXPECT_EQ(valueOfJson(jsonOf(value)), value);
}

TEST(JsonOfValue, MapsThatLookLikeEscapesRoundTrip) {
  const Value date = Value::map({{"$date", 5}});
  const Value maps[] = {date,
                        Value::map({{"$data", "no base64"}}),
                        Value::map({{"$map", 1}}),
                        Value::map({{"$map", date}}),
                        Value::map({{"$map", Value::map({{"$map", date}})}}),
                        Value::map({{"$map", Date{5}}, {"other", 1}}),
                        Value::map({{"$map", date}, {"other", 1}}),
                        Value::map({{"$date", 5}, {"other", 1}}),
                        Value::map({{"other", 1}, {"$map", Date{5}}}),
                        Value::map({{"$other", 5}})};
  for (const Value& map : maps) EXPECT_EQ(valueOfJson(jsonOf(map)), map) << jsonOf(map);
}

TEST(JsonOfValue, TheLastOfDuplicateKeysWins) {
  EXPECT_EQ(jsonOf(Value::map({{"a", 1}, {"b", 2}, {"a", 3}})), R"({"b":2,"a":3})");
}

TEST(JsonOfValue, CharactersAreKeptOrEscaped) {
  EXPECT_EQ(jsonOf("Zürich\x1b\u202e"), "\"Zürich\\u001b\u202e\"");
  EXPECT_EQ(jsonOf("Zürich\x1b\u202e", JsonLetters::ascii), R"("Z\u00fcrich\u001b\u202e")");
}

TEST(ValueOfJson, TheOrderOfMembersIsKept) {
  EXPECT_EQ(again(R"({"z":1,"a":2,"m":3})"), R"({"z":1,"a":2,"m":3})");
}

TEST(ValueOfJson, InvalidEscapesAreRefused) {
  EXPECT_THAT(faultOf(R"({"$date":"today"})"), HasSubstr("seconds"));
  EXPECT_THAT(faultOf(R"({"$date":{"$real":"NaN"}})"), HasSubstr("seconds"));
  EXPECT_THAT(faultOf(R"({"$data":"?"})"), HasSubstr("base64"));
  EXPECT_THAT(faultOf(R"({"$real":"one"})"), HasSubstr("$real"));
  EXPECT_THAT(faultOf(R"({"$error":{"domain":1,"code":2}})"), HasSubstr("$error"));
  EXPECT_THAT(faultOf(R"({"$map":3})"), HasSubstr("$map"));
}

TEST(ValueOfJson, FaultsNamePositionAndReason) {
  EXPECT_THAT(faultOf("{\"a\":"), HasSubstr("at byte"));
  EXPECT_THAT(faultOf(""), HasSubstr("not JSON"));
  EXPECT_THAT(faultOf("{} {}"), HasSubstr("not JSON"));
  EXPECT_THAT(faultOf("\"\xff\""), HasSubstr("not JSON"));
  EXPECT_THAT(faultOf(R"({"a":1,"a":2})"), HasSubstr("\"a\" stands twice"));
}

TEST(ValueOfJson, Depth200WorksAnd201IsRefused) {
  const auto nested = [](std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
  };
  EXPECT_TRUE(valueOfJson(nested(200)).has_value());
  EXPECT_THAT(faultOf(nested(201)), HasSubstr("deeper than 200"));
  EXPECT_THAT(faultOf(std::string(100'000, '[')), HasSubstr("deeper than 200"));
}

}  // namespace
}  // namespace keel
