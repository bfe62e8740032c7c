// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor_writer.h"

#include <gtest/gtest.h>

#include <limits>

#include "runtime/foundation/test_bytes.h"

namespace keel::cbor {
namespace {

// Returns what one call on a Writer appends, in hexadecimal.
template <class Write>
std::string written(Write write) {
  ByteSink bytes;
  Writer writer(bytes);
  write(writer);
  return hexOf(bytes);
}

TEST(WriterUnsignedInteger, WritesTheShortestHead) {
  struct Row {
    std::uint64_t value;
    const char* hex;
  };
  constexpr Row kRows[] = {
      {0, "00"},
      {23, "17"},
      {24, "1818"},
      {255, "18ff"},
      {256, "190100"},
      {65535, "19ffff"},
      {65536, "1a00010000"},
      {4294967295, "1affffffff"},
      {4294967296, "1b0000000100000000"},
      {std::numeric_limits<std::uint64_t>::max(), "1bffffffffffffffff"},
  };
  for (const Row& row : kRows) {
    EXPECT_EQ(written([&](Writer& writer) { writer.unsignedInteger(row.value); }), row.hex);
  }
}

TEST(WriterInteger, WritesTheShortestHeadOfItsSign) {
  struct Row {
    std::int64_t value;
    const char* hex;
  };
  constexpr Row kRows[] = {
      {0, "00"},
      {-1, "20"},
      {-24, "37"},
      {-25, "3818"},
      {-256, "38ff"},
      {-257, "390100"},
      {std::numeric_limits<std::int64_t>::max(), "1b7fffffffffffffff"},
      {std::numeric_limits<std::int64_t>::min(), "3b7fffffffffffffff"},
  };
  for (const Row& row : kRows)
    EXPECT_EQ(written([&](Writer& writer) { writer.integer(row.value); }), row.hex);
}

TEST(Writer, WritesSimpleValues) {
  EXPECT_EQ(written([](Writer& writer) { writer.null(); }), "f6");
  EXPECT_EQ(written([](Writer& writer) { writer.boolean(true); }), "f5");
  EXPECT_EQ(written([](Writer& writer) { writer.boolean(false); }), "f4");
  EXPECT_EQ(written([](Writer& writer) { writer.real(1.1); }), "fb3ff199999999999a");
  EXPECT_EQ(written([](Writer& writer) { writer.real(1.0); }), "fb3ff0000000000000");
}

TEST(Writer, WritesTextsBytesAndContainers) {
  EXPECT_EQ(written([](Writer& writer) { writer.text(""); }), "60");
  EXPECT_EQ(written([](Writer& writer) { writer.text("\u00fc"); }), "62c3bc");
  EXPECT_EQ(written([](Writer& writer) { writer.text(std::string(24, 'a')); }).substr(0, 6),
            "781861");
  EXPECT_EQ(written([](Writer& writer) { writer.bytes(bytesOfHex("01ff")); }), "4201ff");
  EXPECT_EQ(written([](Writer& writer) { writer.array(3); }), "83");
  EXPECT_EQ(written([](Writer& writer) { writer.map(300); }), "b9012c");
  EXPECT_EQ(written([](Writer& writer) { writer.tag(51741); }), "d9ca1d");
  EXPECT_EQ(written([](Writer& writer) { writer.encoded(bytesOfHex("8101")); }), "8101");
}

TEST(WriterDate, WritesAnIntegerForWholeSecondsUpTo2To53) {
  EXPECT_EQ(written([](Writer& writer) { writer.date(Date{1363896240}); }), "c11a514b67b0");
  EXPECT_EQ(written([](Writer& writer) { writer.date(Date{-1}); }), "c120");
  EXPECT_EQ(written([](Writer& writer) { writer.date(Date{1363896240.5}); }),
            "c1fb41d452d9ec200000");
  EXPECT_EQ(written([](Writer& writer) { writer.date(Date{0x1p53}); }), "c11b0020000000000000");
  EXPECT_EQ(written([](Writer& writer) { writer.date(Date{0x1p53 + 2}); }), "c1fb4340000000000001");
}

TEST(WriterDateDeathTest, InfinityAborts) {
  ByteSink bytes;
  EXPECT_DEATH(Writer(bytes).date(Date{std::numeric_limits<double>::infinity()}), "check failed");
}

TEST(WriterError, WritesATaggedArrayOrNull) {
  EXPECT_EQ(written([](Writer& writer) { writer.error(Error()); }), "f6");
  EXPECT_EQ(written([](Writer& writer) { writer.error(Error("d", 5)); }), "d9ca1d83616405f6");
  EXPECT_EQ(written([](Writer& writer) {
              writer.error(Error("d", -5, Dictionary(Value::map({{"a", 1}}))));
            }),
            "d9ca1d83616424a1616101");
}

TEST(WriterValue, KeepsTheOrderOfMembers) {
  const Value map = Value::map({{"b", 1}, {"a", Value::list({nullptr, true, -1, 0.5})}});
  EXPECT_EQ(hexOf(encode(map)), "a2616201616184f6f520fb3fe0000000000000");
}

TEST(Writer, AppendsToExistingBytes) {
  ByteSink bytes;
  bytes.push(std::byte{1});
  Writer(bytes).text("a");
  EXPECT_EQ(hexOf(bytes), "016161");
}

}  // namespace
}  // namespace keel::cbor
