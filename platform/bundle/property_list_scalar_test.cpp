// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list_scalar.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace keel {
namespace {

TEST(PropertyListInteger, IsReadWithinItsLimits) {
  EXPECT_EQ(integerOfText("0"), Value(0));
  EXPECT_EQ(integerOfText("-0"), Value(0));
  EXPECT_EQ(integerOfText("+7"), Value(7));
  EXPECT_EQ(integerOfText(" \n007\t"), Value(7));
  EXPECT_EQ(integerOfText("0x1F"), Value(31));
  EXPECT_EQ(integerOfText("-9223372036854775808"), Value(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(integerOfText("18446744073709551615"),
            Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(integerOfText("0xffffffffffffffff"), Value(std::numeric_limits<std::uint64_t>::max()));
}

TEST(PropertyListInteger, OtherTextIsRefused) {
  for (const char* text :
       {"", " ", "-", "+", "--1", "+-1", "-+1", "1 2", "1.0", "1e3", "x", "0x", "0x+1", "-0x1",
        "1\v", "0xg", "18446744073709551616", "-9223372036854775809", "0x10000000000000000"}) {
    EXPECT_FALSE(integerOfText(text)) << text;
  }
}

TEST(PropertyListReal, IsRead) {
  EXPECT_EQ(realOfText("1"), Value(1.0));
  EXPECT_EQ(realOfText(" -2.5\n"), Value(-2.5));
  EXPECT_EQ(realOfText("+6.02e+23"), Value(6.02e23));
  EXPECT_EQ(realOfText(".5"), Value(0.5));
  EXPECT_EQ(realOfText("inf"), Value(std::numeric_limits<double>::infinity()));
  EXPECT_EQ(realOfText("-Infinity"), Value(-std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(std::isnan(*realOfText("nan").value().as<double>()));
}

TEST(PropertyListReal, OtherTextIsRefused) {
  for (const char* text :
       {"", "-", "+", "+-1", "--1", "1,5", "1.5x", "0x1p3", "1e", "1e999", "nan(1)", "1 2", "."}) {
    EXPECT_FALSE(realOfText(text)) << text;
  }
}

TEST(PropertyListDate, IsReadToTheSecond) {
  EXPECT_EQ(dateOfText("1970-01-01T00:00:00Z"), Value(Date{0}));
  EXPECT_EQ(dateOfText(" 2026-11-20T09:30:05Z "), Value(Date{1795167005}));
  EXPECT_EQ(dateOfText("2024-02-29T23:59:59Z"), Value(Date{1709251199}));
  EXPECT_EQ(dateOfText("0001-01-01T00:00:00Z"), Value(Date{-62135596800}));
}

TEST(PropertyListDate, OtherTextIsRefused) {
  for (const char* text : {"", "2026-11-20", "2026-11-20T09:30:05", "2026-11-20 09:30:05Z",
                           "2026-13-20T09:30:05Z", "2026-00-20T09:30:05Z", "2026-02-29T00:00:00Z",
                           "2026-11-00T00:00:00Z", "2026-11-20T24:00:00Z", "2026-11-20T23:60:00Z",
                           "2026-11-20T23:59:60Z", "2026-11-20T09:30:05ZZ", "+026-11-20T09:30:05Z",
                           "20 6-11-20T09:30:05Z", "0000-01-01T00:00:00Z"}) {
    EXPECT_FALSE(dateOfText(text)) << text;
  }
}

TEST(PropertyListData, IsReadAcrossLines) {
  EXPECT_EQ(dataOfText(""), Value(Value::Bytes{}));
  EXPECT_EQ(dataOfText("\n\tAAH\r\n /\n"),
            Value(Value::Bytes{std::byte{0}, std::byte{1}, std::byte{0xff}}));
  EXPECT_EQ(dataOfText("Ag=="), Value(Value::Bytes{std::byte{2}}));
}

TEST(PropertyListData, OtherTextIsRefused) {
  for (const char* text : {"A", "Ag", "Ag=", "Ah==", "A-==", "Ag==Ag==", "\"Ag==\""})
    EXPECT_FALSE(dataOfText(text)) << text;
}

}  // namespace
}  // namespace keel
