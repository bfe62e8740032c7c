// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor_cursor.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <limits>

#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/test_bytes.h"

namespace keel::cbor {
namespace {

TEST(Cursor, WalksAMessageInOrder) {
  ByteSink bytes;
  Writer writer(bytes);
  writer.array(9);
  writer.null();
  writer.boolean(true);
  writer.integer(-7);
  writer.unsignedInteger(1000);
  writer.real(1.5);
  writer.text("name");
  writer.bytes(bytesOfHex("0102"));
  writer.map(1);
  writer.text("key");
  writer.boolean(false);
  writer.date(Date{12.5});

  Cursor cursor(bytes);
  std::uint64_t count = 0, number = 0, pairs = 0;
  bool yes = false, no = true;
  std::int64_t integer = 0;
  double real = 0;
  std::string_view text, key;
  std::span<const std::byte> blob;
  Date date;
  EXPECT_TRUE(cursor.array(count) && cursor.null() && cursor.boolean(yes) &&
              cursor.integer(integer));
  EXPECT_TRUE(cursor.unsignedInteger(number) && cursor.real(real) && cursor.text(text) &&
              cursor.bytes(blob));
  EXPECT_TRUE(cursor.map(pairs) && cursor.text(key) && cursor.boolean(no) && cursor.date(date));
  EXPECT_TRUE(cursor.atEnd());
  EXPECT_EQ(count, 9U);
  EXPECT_TRUE(yes);
  EXPECT_EQ(integer, -7);
  EXPECT_EQ(number, 1000U);
  EXPECT_EQ(real, 1.5);
  EXPECT_EQ(text, "name");
  EXPECT_EQ(hexOf(blob), "0102");
  EXPECT_EQ(pairs, 1U);
  EXPECT_EQ(key, "key");
  EXPECT_FALSE(no);
  EXPECT_EQ(date, Date{12.5});
}

// Returns which reads succeed on these bytes: n(ull) b(oolean) i(nteger) u(nsigned) r(eal) t(ext)
// B(ytes) a(rray) m(ap) T(ag) d(ate) e(rror). Also expects the others to leave the cursor and the
// result alone.
std::string readsThatSucceed(const char* hex) {
  const auto bytes = bytesOfHex(hex);
  std::string succeeded;
  const auto attempt = [&](char letter, auto result, auto read) {
    Cursor cursor(bytes);
    const auto untouched = result;
    if (read(cursor, result)) {
      succeeded += letter;
      EXPECT_LT(cursor.rest().size(), bytes.size()) << hex << ' ' << letter;
    } else {
      EXPECT_EQ(cursor.rest().data(), bytes.data()) << hex << ' ' << letter;
      EXPECT_EQ(cursor.rest().size(), bytes.size()) << hex << ' ' << letter;
      EXPECT_TRUE(result == untouched) << hex << ' ' << letter;
    }
  };
  attempt('n', 0, [](Cursor& cursor, int&) { return cursor.null(); });
  attempt('b', false, [](Cursor& cursor, bool& value) { return cursor.boolean(value); });
  attempt('i', std::int64_t{77},
          [](Cursor& cursor, std::int64_t& value) { return cursor.integer(value); });
  attempt('u', std::uint64_t{77},
          [](Cursor& cursor, std::uint64_t& value) { return cursor.unsignedInteger(value); });
  attempt('r', 77.0, [](Cursor& cursor, double& value) { return cursor.real(value); });
  attempt('t', std::string_view("77"),
          [](Cursor& cursor, std::string_view& value) { return cursor.text(value); });
  Cursor onBytes(bytes);
  std::span<const std::byte> blob;
  if (onBytes.bytes(blob)) succeeded += 'B';
  attempt('a', std::uint64_t{77},
          [](Cursor& cursor, std::uint64_t& value) { return cursor.array(value); });
  attempt('m', std::uint64_t{77},
          [](Cursor& cursor, std::uint64_t& value) { return cursor.map(value); });
  attempt('T', std::uint64_t{77},
          [](Cursor& cursor, std::uint64_t& value) { return cursor.tag(value); });
  attempt('d', Date{77}, [](Cursor& cursor, Date& value) { return cursor.date(value); });
  attempt('e', Error("77", 77),
          [](Cursor& cursor, Error& value) { return cursor.error(value, kDepthCapacity); });
  return succeeded;
}

TEST(Cursor, OnlyTheMatchingReadAcceptsAnItem) {
  EXPECT_EQ(readsThatSucceed("f6"), "n");
  EXPECT_EQ(readsThatSucceed("f4"), "b");
  EXPECT_EQ(readsThatSucceed("f5"), "b");
  EXPECT_EQ(readsThatSucceed("00"), "iu");
  EXPECT_EQ(readsThatSucceed("20"), "i");
  EXPECT_EQ(readsThatSucceed("f93c00"), "r");
  EXPECT_EQ(readsThatSucceed("fa3f800000"), "r");
  EXPECT_EQ(readsThatSucceed("fb3ff0000000000000"), "r");
  EXPECT_EQ(readsThatSucceed("6161"), "t");
  EXPECT_EQ(readsThatSucceed("4161"), "B");
  EXPECT_EQ(readsThatSucceed("80"), "a");
  EXPECT_EQ(readsThatSucceed("a0"), "m");
  EXPECT_EQ(readsThatSucceed("c100"), "Td");
  EXPECT_EQ(readsThatSucceed("d9ca1d83616405f6"), "Te");
}

TEST(Cursor, FaultyBytesAreRefused) {
  for (const char* hex : {"",
                          "1800",
                          "3800",
                          "18",
                          "1c",
                          "f7",
                          "f800",
                          "f93c",
                          "fa3f8000",
                          "61",
                          "61ff",
                          "780161",
                          "7f6161ff",
                          "41",
                          "580161",
                          "5f4161ff",
                          "9fff",
                          "bfff",
                          "d801f6",
                          "ff",
                          "9bffffffffffffffff",
                          "bbffffffffffffffff",
                          "81",
                          "a100",
                          "3b8000000000000000"}) {
    EXPECT_EQ(readsThatSucceed(hex), "") << hex;
  }
}

TEST(Cursor, TagsWithWrongContentAreRefused) {
  // The head of the tag is readable, the date or error is not.
  EXPECT_EQ(readsThatSucceed("c1"), "T");
  EXPECT_EQ(readsThatSucceed("c000"), "T");
  EXPECT_EQ(readsThatSucceed("c1f97c00"), "T");
  EXPECT_EQ(readsThatSucceed("c16130"), "T");
  EXPECT_EQ(readsThatSucceed("d9ca1d83616405f5"), "T");
  EXPECT_EQ(readsThatSucceed("d9ca1d83616405"), "T");
  EXPECT_EQ(readsThatSucceed("d9ca1d83616405a16161"), "T");
  EXPECT_EQ(readsThatSucceed("d9ca1c83616405f6"), "T");
}

TEST(CursorInteger, ReachesTheEndsOfItsRange) {
  std::int64_t value = 0;
  EXPECT_TRUE(Cursor(bytesOfHex("1b7fffffffffffffff")).integer(value));
  EXPECT_EQ(value, std::numeric_limits<std::int64_t>::max());
  EXPECT_TRUE(Cursor(bytesOfHex("3b7fffffffffffffff")).integer(value));
  EXPECT_EQ(value, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(readsThatSucceed("1b8000000000000000"), "u");
  std::uint64_t natural = 0;
  EXPECT_TRUE(Cursor(bytesOfHex("1bffffffffffffffff")).unsignedInteger(natural));
  EXPECT_EQ(natural, std::numeric_limits<std::uint64_t>::max());
}

TEST(CursorArray, ACountBeyondTheBytesIsRefused) {
  EXPECT_EQ(readsThatSucceed("820000"), "a");
  EXPECT_EQ(readsThatSucceed("8200"), "");
  EXPECT_EQ(readsThatSucceed("a160f6"), "m");
  EXPECT_EQ(readsThatSucceed("a160"), "");
}

TEST(CursorText, BorrowsTheBytes) {
  const auto bytes = bytesOfHex("63616263");
  Cursor cursor(bytes);
  std::string_view text;
  ASSERT_TRUE(cursor.text(text));
  EXPECT_EQ(static_cast<const void*>(text.data()), bytes.data() + 1);
}

TEST(CursorItem, ReturnsTheBytesOfOneItem) {
  const auto bytes = bytesOfHex("a16161820102 f6 d9ca1d83616405a0");
  Cursor cursor(bytes);
  EXPECT_EQ(hexOf(*cursor.item(2)), "a16161820102");
  EXPECT_EQ(hexOf(*cursor.item(0)), "f6");
  EXPECT_EQ(hexOf(*cursor.item(2)), "d9ca1d83616405a0");
  EXPECT_TRUE(cursor.atEnd());
}

TEST(CursorItem, ReturnsTheFaultAndStaysInPlace) {
  const auto bytes = bytesOfHex("a16161820102");
  Cursor cursor(bytes);
  EXPECT_EQ(cursor.item(1).error(), Fault::tooDeep);
  EXPECT_EQ(cursor.rest().size(), bytes.size());
  EXPECT_EQ(Cursor(bytesOfHex("61ff")).item(1).error(), Fault::badUtf8);
  EXPECT_EQ(Cursor(std::span<const std::byte>()).item(1).error(), Fault::truncated);
}

TEST(CursorError, ReadsDomainCodeAndUserInfo) {
  const auto bytes = bytesOfHex("d9ca1d836164387fa1616101 00");
  Cursor cursor(bytes);
  Error error;
  ASSERT_TRUE(cursor.error(error, 2));
  EXPECT_EQ(error.domain().view(), "d");
  EXPECT_EQ(error.code(), -128);
  EXPECT_EQ(hexOf(error.userInfo().encoded()), "a1616101");
  EXPECT_EQ(cursor.rest().size(), 1U);
}

TEST(CursorError, AnErrorNestedTooDeeplyIsRefused) {
  Error error;
  EXPECT_FALSE(Cursor(bytesOfHex("d9ca1d83616405a0")).error(error, 1));
  EXPECT_FALSE(error);
}

TEST(CursorMajorType, IsThatOfTheNextItem) {
  EXPECT_EQ(Cursor(bytesOfHex("a0")).majorType(), 5);
  EXPECT_EQ(Cursor(bytesOfHex("f6")).majorType(), 7);
  EXPECT_EQ(Cursor(std::span<const std::byte>()).majorType(), std::nullopt);
}

TEST(CursorReal, ReadsEveryHalfFloatAsTheStandardDefines) {
  for (unsigned half = 0; half < 0x10000; ++half) {
    const std::array bytes{std::byte{0xf9}, static_cast<std::byte>(half >> 8),
                           static_cast<std::byte>(half)};
    double value = 0;
    ASSERT_TRUE(Cursor(bytes).real(value));
    // RFC 8949, appendix D.
    const int exponent = static_cast<int>(half >> 10 & 0x1f),
              mantissa = static_cast<int>(half & 0x3ff);
    double expected =
        exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(mantissa + 1024, exponent - 25);
    if (exponent == 31)
      expected = mantissa == 0 ? std::numeric_limits<double>::infinity() : std::nan("");
    if (half & 0x8000) expected = -expected;
    ASSERT_EQ(std::isnan(value), std::isnan(expected)) << half;
    if (std::isnan(expected)) continue;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(value), std::bit_cast<std::uint64_t>(expected)) << half;
  }
}

}  // namespace
}  // namespace keel::cbor
