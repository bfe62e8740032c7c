// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <set>

#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/test_bytes.h"

namespace keel::cbor {
namespace {

// Returns the outcome of decode(): the value's notation, or the fault. Also expects validate() to
// agree.
std::string outcomeOf(std::span<const std::byte> bytes, std::size_t maximumDepth = kDepthCapacity) {
  const auto valid = validate(bytes, maximumDepth);
  const auto decoded = decode(bytes, maximumDepth);
  EXPECT_EQ(valid.has_value(), decoded.has_value()) << hexOf(bytes);
  if (!decoded) {
    EXPECT_EQ(valid.error(), decoded.error()) << hexOf(bytes);
    return std::string(describe(decoded.error()));
  }
  return decoded->description();
}

std::string outcomeOf(const char* hex, std::size_t maximumDepth = kDepthCapacity) {
  return outcomeOf(bytesOfHex(hex), maximumDepth);
}

std::string refusal(Fault fault) {
  return std::string(describe(fault));
}

struct Example {
  const char* hex;
  const char* notation;
};

// The examples of RFC 8949, appendix A, within our subset.
TEST(Decode, ReadsTheExamplesOfTheStandard) {
  constexpr Example kExamples[] = {
      {"00", "0"},
      {"01", "1"},
      {"0a", "10"},
      {"17", "23"},
      {"1818", "24"},
      {"1819", "25"},
      {"1864", "100"},
      {"1903e8", "1000"},
      {"1a000f4240", "1000000"},
      {"1b000000e8d4a51000", "1000000000000"},
      {"1bffffffffffffffff", "18446744073709551615"},
      {"20", "-1"},
      {"29", "-10"},
      {"3863", "-100"},
      {"3903e7", "-1000"},
      {"f90000", "0.0"},
      {"f98000", "-0.0"},
      {"f93c00", "1.0"},
      {"fb3ff199999999999a", "1.1"},
      {"f93e00", "1.5"},
      {"f97bff", "65504.0"},
      {"fa47c35000", "100000.0"},
      {"fa7f7fffff", "3.4028234663852886e+38"},
      {"fb7e37e43c8800759c", "1.0e+300"},
      {"f90001", "5.960464477539063e-08"},
      {"f90400", "6.103515625e-05"},
      {"f9c400", "-4.0"},
      {"fbc010666666666666", "-4.1"},
      {"f97c00", "Infinity"},
      {"f97e00", "NaN"},
      {"f9fc00", "-Infinity"},
      {"fa7f800000", "Infinity"},
      {"fa7fc00000", "NaN"},
      {"faff800000", "-Infinity"},
      {"fb7ff0000000000000", "Infinity"},
      {"fb7ff8000000000000", "NaN"},
      {"fbfff0000000000000", "-Infinity"},
      {"f4", "false"},
      {"f5", "true"},
      {"f6", "null"},
      {"c11a514b67b0", "1(1363896240)"},
      {"c1fb41d452d9ec200000", "1(1363896240.5)"},
      {"40", "h''"},
      {"4401020304", "h'01020304'"},
      {"60", "\"\""},
      {"6161", "\"a\""},
      {"6449455446", "\"IETF\""},
      {"62225c", R"("\"\\")"},
      {"62c3bc", "\"\u00fc\""},
      {"63e6b0b4", "\"\u6c34\""},
      {"64f0908591", "\"\U00010151\""},
      {"80", "[]"},
      {"83010203", "[1, 2, 3]"},
      {"8301820203820405", "[1, [2, 3], [4, 5]]"},
      {"98190102030405060708090a0b0c0d0e0f101112131415161718181819",
       "[1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, "
       "25]"},
      {"a0", "{}"},
      {"a26161016162820203", R"({"a": 1, "b": [2, 3]})"},
      {"826161a161626163", R"(["a", {"b": "c"}])"},
      {"a56161614161626142616361436164614461656145",
       R"({"a": "A", "b": "B", "c": "C", "d": "D", "e": "E"})"},
  };
  for (const Example& example : kExamples)
    EXPECT_EQ(outcomeOf(example.hex), example.notation) << example.hex;
}

struct Refused {
  const char* hex;
  Fault fault;
};

// The other examples of that appendix.
TEST(Decode, RefusesTheExamplesOfTheStandardOutsideTheSubset) {
  constexpr Refused kExamples[] = {
      {"c249010000000000000000", Fault::unknownTag},
      {"3bffffffffffffffff", Fault::integerRange},
      {"c349010000000000000000", Fault::unknownTag},
      {"f7", Fault::simpleValue},
      {"f0", Fault::simpleValue},
      {"f8ff", Fault::simpleValue},
      {"c074323031332d30332d32315432303a30343a30305a", Fault::unknownTag},
      {"d74401020304", Fault::unknownTag},
      {"d818456449455446", Fault::unknownTag},
      {"d82076687474703a2f2f7777772e6578616d706c652e636f6d", Fault::unknownTag},
      {"a201020304", Fault::keyNotText},
      {"5f42010243030405ff", Fault::indefiniteLength},
      {"7f657374726561646d696e67ff", Fault::indefiniteLength},
      {"9fff", Fault::indefiniteLength},
      {"9f018202039f0405ffff", Fault::indefiniteLength},
      {"83018202039f0405ff", Fault::indefiniteLength},
      {"bf61610161629f0203ffff", Fault::indefiniteLength},
      {"bf6346756ef563416d7421ff", Fault::indefiniteLength},
  };
  for (const Refused& example : kExamples)
    EXPECT_EQ(outcomeOf(example.hex), refusal(example.fault)) << example.hex;
}

TEST(Validate, NoBytesAreRefused) {
  EXPECT_EQ(outcomeOf(""), refusal(Fault::truncated));
}

TEST(Validate, BytesBehindTheItemAreRefused) {
  EXPECT_EQ(outcomeOf("0000"), refusal(Fault::trailingBytes));
  EXPECT_EQ(outcomeOf("a0f6"), refusal(Fault::trailingBytes));
}

TEST(Validate, HeadsThatAreNotShortestAreRefused) {
  constexpr const char* kRefused[] = {"1817",       "1900ff", "1a0000ffff", "1b00000000ffffffff",
                                      "3800",       "5801aa", "780161",     "980101",
                                      "b801616101", "d801f6", "d9000100",   "a178016101"};
  for (const char* hex : kRefused) EXPECT_EQ(outcomeOf(hex), refusal(Fault::notShortest)) << hex;
  EXPECT_EQ(outcomeOf("1818"), "24");
  EXPECT_EQ(outcomeOf("190100"), "256");
  EXPECT_EQ(outcomeOf("1a00010000"), "65536");
  EXPECT_EQ(outcomeOf("1b0000000100000000"), "4294967296");
}

TEST(Validate, ReservedHeadsAreRefused) {
  for (unsigned major = 0; major < 8; ++major) {
    for (unsigned information = 28; information < 31; ++information) {
      const std::byte bytes[] = {static_cast<std::byte>(major << 5 | information), std::byte{0}};
      EXPECT_EQ(outcomeOf(bytes), refusal(Fault::reservedHead)) << hexOf(bytes);
    }
  }
  EXPECT_EQ(outcomeOf("1f"), refusal(Fault::reservedHead));
  EXPECT_EQ(outcomeOf("3f"), refusal(Fault::reservedHead));
  EXPECT_EQ(outcomeOf("df"), refusal(Fault::reservedHead));
  EXPECT_EQ(outcomeOf("ff"), refusal(Fault::indefiniteLength));
}

TEST(Validate, NegativeIntegersReachMinus2To63) {
  EXPECT_EQ(outcomeOf("3b7fffffffffffffff"), "-9223372036854775808");
  EXPECT_EQ(outcomeOf("3b8000000000000000"), refusal(Fault::integerRange));
}

TEST(Validate, KeysThatAreNotTextAreRefused) {
  EXPECT_EQ(outcomeOf("a14161f6"), refusal(Fault::keyNotText));
  EXPECT_EQ(outcomeOf("a1f6f6"), refusal(Fault::keyNotText));
  EXPECT_EQ(outcomeOf("a1c100f6"), refusal(Fault::keyNotText));
  EXPECT_EQ(outcomeOf("a26161f600f6"), refusal(Fault::keyNotText));
  EXPECT_EQ(outcomeOf("a17fff"), refusal(Fault::indefiniteLength));
}

TEST(Validate, InvalidUtf8IsRefused) {
  EXPECT_EQ(outcomeOf("61ff"), refusal(Fault::badUtf8));
  EXPECT_EQ(outcomeOf("a161fff6"), refusal(Fault::badUtf8));
  EXPECT_EQ(outcomeOf("69616161616161616180"), refusal(Fault::badUtf8));
  // The bytes behind a text must not complete its last character.
  EXPECT_EQ(outcomeOf("8261c361bc"), refusal(Fault::badUtf8));
}

TEST(Validate, DuplicateKeysAreAccepted) {
  EXPECT_EQ(outcomeOf("a2616101616102"), R"({"a": 1, "a": 2})");
}

TEST(Validate, DatesOfEveryFiniteNumberAreAccepted) {
  EXPECT_EQ(outcomeOf("c100"), "1(0)");
  EXPECT_EQ(outcomeOf("c120"), "1(-1)");
  EXPECT_EQ(outcomeOf("c1f93e00"), "1(1.5)");
  EXPECT_EQ(outcomeOf("c1fa3fc00000"), "1(1.5)");
  EXPECT_EQ(outcomeOf("c1f93c00"), "1(1)");
  EXPECT_EQ(outcomeOf("c11bffffffffffffffff"), "1(1.8446744073709552e+19)");
  EXPECT_EQ(outcomeOf("c13b7fffffffffffffff"), "1(-9.223372036854776e+18)");
}

TEST(Validate, OtherDatesAreRefused) {
  for (const char* hex :
       {"c1f97c00", "c1f97e00", "c1fa7f800000", "c1fbfff0000000000000", "c1f6", "c1f5", "c16130",
        "c140", "c180", "c1a0", "c1c100", "c1d9ca1d836164056f6"}) {
    EXPECT_EQ(outcomeOf(hex), refusal(Fault::badTagContent)) << hex;
  }
  EXPECT_EQ(outcomeOf("c1"), refusal(Fault::truncated));
  EXPECT_EQ(outcomeOf("c1f97c"), refusal(Fault::truncated));
  EXPECT_EQ(outcomeOf("c11800"), refusal(Fault::notShortest));
  EXPECT_EQ(outcomeOf("c13b8000000000000000"), refusal(Fault::integerRange));
  EXPECT_EQ(outcomeOf("c1f7"), refusal(Fault::simpleValue));
}

TEST(Validate, ErrorsAreAccepted) {
  EXPECT_EQ(outcomeOf("d9ca1d83616405f6"), R"(51741(["d", 5, null]))");
  EXPECT_EQ(outcomeOf("d9ca1d836024a0"), R"(51741(["", -5, {}]))");
  EXPECT_EQ(outcomeOf("d9ca1d8361641b7fffffffffffffffa1616101"),
            R"(51741(["d", 9223372036854775807, {"a": 1}]))");
  EXPECT_EQ(outcomeOf("82d9ca1d83616405a16161d9ca1d83616506f607"),
            R"([51741(["d", 5, {"a": 51741(["e", 6, null])}]), 7])");
}

TEST(Validate, MalformedErrorsAreRefused) {
  for (const char* hex : {"d9ca1df6", "d9ca1d80", "d9ca1d82616405", "d9ca1d84616405f6f6",
                          "d9ca1da0", "d9ca1d83416405f6", "d9ca1d83f605f6", "d9ca1d8361646135f6",
                          "d9ca1d836164f94500f6", "d9ca1d83616405f5", "d9ca1d8361640580",
                          "d9ca1d83616405c100", "d9ca1d8361641b8000000000000000f6"}) {
    EXPECT_EQ(outcomeOf(hex), refusal(Fault::badTagContent)) << hex;
  }
  EXPECT_EQ(outcomeOf("d9ca1d8361643b8000000000000000f6"), refusal(Fault::integerRange));
  EXPECT_EQ(outcomeOf("d9ca1d8361ff05f6"), refusal(Fault::badUtf8));
  EXPECT_EQ(outcomeOf("d9ca1d83616405a100f6"), refusal(Fault::keyNotText));
  EXPECT_EQ(outcomeOf("d9ca1d9803616405f6"), refusal(Fault::badTagContent));
  EXPECT_EQ(outcomeOf("d9ca1d83616405bfff"), refusal(Fault::indefiniteLength));
}

TEST(Validate, OtherTagsAreRefused) {
  for (const char* hex : {"c000", "c200", "d9ca1c83616405f6", "d9ca1e83616405f6", "d9d9f700",
                          "db000000010000000000"}) {
    EXPECT_EQ(outcomeOf(hex), refusal(Fault::unknownTag)) << hex;
  }
}

// Returns [[...]] of that depth around `core`.
std::vector<std::byte> nested(std::size_t depth, const char* core = "") {
  std::vector<std::byte> bytes(depth, std::byte{0x81});
  const auto inner = bytesOfHex(core);
  if (inner.empty()) bytes.back() = std::byte{0x80};
  bytes.insert(bytes.end(), inner.begin(), inner.end());
  return bytes;
}

TEST(ValidateDepth, CountsArraysAndMaps) {
  EXPECT_EQ(outcomeOf("00", 0), "0");
  EXPECT_EQ(outcomeOf("80", 0), refusal(Fault::tooDeep));
  EXPECT_EQ(outcomeOf("a0", 0), refusal(Fault::tooDeep));
  EXPECT_EQ(outcomeOf("80", 1), "[]");
  EXPECT_EQ(outcomeOf("8180", 1), refusal(Fault::tooDeep));
  EXPECT_EQ(outcomeOf("a16161a0", 1), refusal(Fault::tooDeep));
  EXPECT_EQ(outcomeOf("a16161a0", 2), R"({"a": {}})");
}

TEST(ValidateDepth, SiblingsDoNotAddUp) {
  EXPECT_EQ(outcomeOf("8481008102818080", 3), "[[0], [2], [[]], []]");
}

TEST(ValidateDepth, ATagAddsNothingAndTheArrayOfAnErrorAddsOne) {
  EXPECT_EQ(outcomeOf("c100", 0), "1(0)");
  EXPECT_EQ(outcomeOf("d9ca1d83616405f6", 0), refusal(Fault::tooDeep));
  EXPECT_EQ(outcomeOf("d9ca1d83616405f6", 1), R"(51741(["d", 5, null]))");
  EXPECT_EQ(outcomeOf("d9ca1d83616405a0", 1), refusal(Fault::tooDeep));
  EXPECT_EQ(outcomeOf("d9ca1d83616405a0", 2), R"(51741(["d", 5, {}]))");
}

TEST(ValidateDepth, Depth64WorksAnd65IsRefused) {
  EXPECT_TRUE(validate(nested(64), 64).has_value());
  EXPECT_TRUE(decode(nested(64), 64).has_value());
  EXPECT_EQ(outcomeOf(nested(65), 64), refusal(Fault::tooDeep));
  EXPECT_TRUE(validate(nested(62, "d9ca1d83616405a0"), 64).has_value());
  EXPECT_TRUE(decode(nested(62, "d9ca1d83616405a0"), 64).has_value());
  EXPECT_EQ(outcomeOf(nested(63, "d9ca1d83616405a0"), 64), refusal(Fault::tooDeep));
}

TEST(ValidateDepth, DepthOfAMillionIsRefused) {
  EXPECT_EQ(outcomeOf(nested(1'000'000), 64), refusal(Fault::tooDeep));
}

TEST(ValidateDepthDeathTest, MoreThanTheCapacityAborts) {
  const auto bytes = bytesOfHex("00");
  EXPECT_TRUE(validate(bytes, kDepthCapacity).has_value());
  EXPECT_DEATH(static_cast<void>(validate(bytes, kDepthCapacity + 1)), "check failed");
}

TEST(Validate, CountsBeyondTheBytesAreRefused) {
  for (const char* hex :
       {"9bffffffffffffffff", "bbffffffffffffffff", "bb8000000000000000", "bb7fffffffffffffff",
        "9b000000010000000000", "5bffffffffffffffff", "7bffffffffffffffff", "9a7fffffff0000",
        "8200", "a26161f6", "4201", "6261", "a1616101616102a1"}) {
    const auto outcome = outcomeOf(hex);
    EXPECT_TRUE(outcome == refusal(Fault::truncated) || outcome == refusal(Fault::trailingBytes))
        << hex << outcome;
  }
  EXPECT_EQ(outcomeOf("9bffffffffffffffff"), refusal(Fault::truncated));
  EXPECT_EQ(outcomeOf("bb8000000000000000"), refusal(Fault::truncated));
}

Value everyKind() {
  return Value::map({
      {"null", nullptr},
      {"bool", true},
      {"int", -70000},
      {"large", std::numeric_limits<std::uint64_t>::max()},
      {"real", 0.1},
      {"text", "gr\u00fc\u00dfe \u4e2d \U0001f600, and a tail of ASCII"},
      {"bytes", bytesOfHex("00ff10")},
      {"date", Date{1732.5}},
      {"list", Value::list({1, "two", Value::list({}), Value::map({})})},
      {"error", Error("KLNErrorDomain", 9, Dictionary(Value::map({{"a", Date{1}}})))},
  });
}

TEST(Decode, ReturnsTheEncodedValue) {
  const auto decoded = decode(encode(everyKind()), kDepthCapacity);
  ASSERT_TRUE(decoded.has_value());
  EXPECT_TRUE(*decoded == everyKind()) << decoded->description();
}

TEST(Decode, EveryPrefixIsTruncated) {
  const auto bytes = encode(everyKind());
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    // A copy of exactly that size, so that a sanitizer catches reads beyond it.
    const std::vector<std::byte> prefix(bytes.begin(),
                                        bytes.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(outcomeOf(prefix), refusal(Fault::truncated)) << size;
  }
}

TEST(Decode, AgreesWithValidateOnDamagedBytes) {
  constexpr unsigned kSeed = 20261120;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  const auto original = encode(everyKind());
  for (int round = 0; round < 20000; ++round) {
    auto bytes = original;
    for (auto damages = random() % 3 + 1; damages > 0; --damages) {
      bytes[random() % bytes.size()] = static_cast<std::byte>(random());
    }
    outcomeOf(bytes);
  }
}

TEST(Decode, DatesRoundTripExactly) {
  constexpr unsigned kSeed = 1;
  std::mt19937_64 random(kSeed);
  std::vector<double> seconds{0,      -0.0,   0.5,     0x1p53, 0x1p53 + 2, -0x1p53,
                              0x1p63, 0x1p64, -0x1p63, 1e300,  5e-324};
  for (int round = 0; round < 10000; ++round) {
    const auto real = std::bit_cast<double>(random());
    if (std::isfinite(real)) seconds.push_back(real);
    seconds.push_back(static_cast<double>(static_cast<std::int64_t>(random() >> (random() % 64))));
  }
  for (const double second : seconds) {
    const auto decoded = decode(encode(Value(Date{second})), 0);
    ASSERT_TRUE(decoded.has_value()) << second;
    EXPECT_TRUE(*decoded == Value(Date{second})) << second;
  }
}

TEST(DescribeFault, EveryFaultHasATextOfItsOwn) {
  std::set<std::string_view> texts;
  for (int fault = 0; fault <= static_cast<int>(Fault::tooDeep); ++fault)
    texts.insert(describe(static_cast<Fault>(fault)));
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(Fault::tooDeep) + 1);
  EXPECT_FALSE(texts.contains("unknown fault"));
}

}  // namespace
}  // namespace keel::cbor
