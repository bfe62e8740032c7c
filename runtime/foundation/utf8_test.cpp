// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/utf8.h"

#include <gtest/gtest.h>

#include <random>

#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

// Encodes any number as if it were a code point, in `length` bytes, whether that is allowed or not.
std::string encodedIn(std::size_t length, std::uint32_t number) {
  if (length == 1) return std::string(1, static_cast<char>(number));
  std::string bytes(length, '\0');
  for (std::size_t i = length - 1; i > 0; --i, number >>= 6)
    bytes[i] = static_cast<char>(0x80 | (number & 0x3f));
  constexpr std::uint32_t kLead[] = {0, 0, 0xc0, 0xe0, 0xf0};
  bytes[0] = static_cast<char>(kLead[length] | number);
  return bytes;
}

std::size_t properLength(std::uint32_t number) {
  return number < 0x80 ? 1 : number < 0x800 ? 2 : number < 0x10000 ? 3 : 4;
}

// An obviously correct decoder to compare isUtf8() with: decodes a number, then checks whether it
// is allowed.
bool isUtf8Reference(std::string_view text) {
  while (!text.empty()) {
    const auto lead = static_cast<unsigned char>(text[0]);
    const std::size_t length = lead < 0x80   ? 1
                               : lead < 0xc0 ? 0
                               : lead < 0xe0 ? 2
                               : lead < 0xf0 ? 3
                               : lead < 0xf8 ? 4
                                             : 0;
    if (length == 0 || text.size() < length) return false;
    std::uint32_t number = length == 1 ? lead : lead & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
      const auto next = static_cast<unsigned char>(text[i]);
      if ((next & 0xc0) != 0x80) return false;
      number = number << 6 | (next & 0x3fU);
    }
    if (properLength(number) != length || number > 0x10ffff ||
        (number >= 0xd800 && number < 0xe000))
      return false;
    text.remove_prefix(length);
  }
  return true;
}

TEST(IsUtf8, AcceptsEveryCodePointInItsShortestFormOnly) {
  for (std::uint32_t number = 0; number < 0x110000; ++number) {
    const bool surrogate = number >= 0xd800 && number < 0xe000;
    const std::size_t proper = properLength(number);
    ASSERT_EQ(isUtf8(encodedIn(proper, number)), !surrogate) << number;
    for (std::size_t length = proper + 1; length <= 4; ++length)
      ASSERT_FALSE(isUtf8(encodedIn(length, number))) << number;
  }
  for (std::uint32_t number = 0x110000; number < 0x200000; ++number)
    ASSERT_FALSE(isUtf8(encodedIn(4, number))) << number;
}

TEST(IsUtf8, AgreesWithTheReferenceOnEveryTwoBytes) {
  for (unsigned first = 0; first < 256; ++first) {
    for (unsigned second = 0; second < 256; ++second) {
      const std::string text{static_cast<char>(first), static_cast<char>(second)};
      ASSERT_EQ(isUtf8(text), isUtf8Reference(text)) << first << ' ' << second;
    }
  }
}

TEST(IsUtf8, FindsABadByteAtEveryIndexOfEveryLength) {
  for (std::size_t size = 1; size <= 100; ++size) {
    const std::string good(size, 'a');
    EXPECT_TRUE(isUtf8(good));
    for (std::size_t index = 0; index < size; ++index) {
      std::string bad = good;
      bad[index] = '\x80';
      EXPECT_FALSE(isUtf8(bad)) << size << ' ' << index;
    }
  }
}

TEST(IsUtf8, AcceptsACharacterAtEveryIndexOfEveryLength) {
  for (std::size_t size = 0; size <= 50; ++size) {
    for (std::size_t index = 0; index <= size; ++index) {
      for (const char* character : {"\u00fc", "\u4e2d", "\U0001f600"}) {
        std::string text(size, 'a');
        text.insert(index, character);
        EXPECT_TRUE(isUtf8(text));
        text.pop_back();
        EXPECT_EQ(isUtf8(text), index < size) << size << ' ' << index;
      }
    }
  }
}

TEST(IsUtf8, AgreesWithTheReferenceOnRandomMixtures) {
  constexpr unsigned kSeed = 7;
  std::mt19937 random(kSeed);
  const std::string_view pieces[] = {"a",    "plain text", "\u00fc",       "\u4e2d", "\U0001f600",
                                     "\xc3", "\x80",       "\xed\xa0\x80", "\xf4"};
  std::size_t accepted = 0;
  for (int round = 0; round < 100000; ++round) {
    std::string text;
    // Mostly valid pieces, so that a fair share of the texts is accepted.
    for (auto count = random() % 12; count > 0; --count)
      text += pieces[random() % (random() % 8 == 0 ? 9 : 5)];
    ASSERT_EQ(isUtf8(text), isUtf8Reference(text))
        << "seed " << kSeed << ": " << hexOf(bytesOfText(text));
    if (isUtf8(text)) ++accepted;
  }
  EXPECT_GT(accepted, 10000U);
  EXPECT_LT(accepted, 90000U);
}

}  // namespace
}  // namespace keel
