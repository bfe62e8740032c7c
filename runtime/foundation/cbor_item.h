// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "runtime/foundation/utf8.h"

// Reads and checks encoded items in place (cbor.h has the format): heads, texts, numbers, whole
// items. Largely inline, since the daemon does this for every member of every message. All
// functions read from `at`, never beyond `end`, and return the position behind what they read, or
// null on a fault.

namespace keel::cbor {

inline constexpr std::uint64_t kDateTag = 1;
inline constexpr std::uint64_t kErrorTag = 51741;
// No maximumDepth may be above this.
inline constexpr std::size_t kDepthCapacity = 66;

// Why bytes were refused.
enum class Fault : std::uint8_t {
  truncated,
  trailingBytes,
  notShortest,
  indefiniteLength,
  reservedHead,
  simpleValue,
  integerRange,
  badUtf8,
  keyNotText,
  unknownTag,
  badTagContent,
  tooDeep,
};
// Returns the text for people.
std::string_view describe(Fault fault);

// The eight major types (the upper three bits of an item's first byte).
enum class Major : std::uint8_t {
  unsignedInteger,
  negativeInteger,
  bytes,
  text,
  array,
  map,
  tag,
  simple
};

// First bytes of the items of major type `simple`.
inline constexpr std::uint8_t kFalse = 0xf4, kTrue = 0xf5, kNull = 0xf6, kHalf = 0xf9,
                              kFloat = 0xfa, kDouble = 0xfb;

inline constexpr std::uint64_t kInt64Limit = 0x7fff'ffff'ffff'ffff;

template <class Unsigned>
Unsigned loadBigEndianAs(const std::byte* at) {
  Unsigned value;
  std::memcpy(&value, at, sizeof value);
  return std::endian::native == std::endian::big ? value : std::byteswap(value);
}

// Loads a big-endian number of 1, 2, 4 or 8 bytes.
inline std::uint64_t loadBigEndian(const std::byte* at, std::size_t width) {
  switch (width) {
    case 1:
      return std::to_integer<std::uint8_t>(*at);
    case 2:
      return loadBigEndianAs<std::uint16_t>(at);
    case 4:
      return loadBigEndianAs<std::uint32_t>(at);
    default:
      return loadBigEndianAs<std::uint64_t>(at);
  }
}

inline std::size_t bytesBetween(const std::byte* at, const std::byte* end) {
  return static_cast<std::size_t>(end - at);
}

struct Head {
  Major major;
  std::uint64_t argument;
};

inline Major majorOf(std::byte initial) {
  return static_cast<Major>(std::to_integer<std::uint8_t>(initial) >> 5);
}

// Reads a head of any major type but `simple`. `at` must be before `end`.
inline const std::byte* readHead(const std::byte* at, const std::byte* end, Head& head,
                                 Fault& fault) {
  const std::byte initial = *at++;
  const auto information = std::to_integer<std::uint8_t>(initial) & 31U;
  head.major = majorOf(initial);
  head.argument = information;
  if (information < 24) [[likely]]
    return at;
  if (information > 27) {
    const bool couldBeIndefinite = head.major >= Major::bytes && head.major <= Major::map;
    fault = information == 31 && couldBeIndefinite ? Fault::indefiniteLength : Fault::reservedHead;
    return nullptr;
  }
  const std::size_t width = std::size_t{1} << (information - 24);
  if (bytesBetween(at, end) < width) {
    fault = Fault::truncated;
    return nullptr;
  }
  constexpr std::uint64_t kSmallest[] = {24, 0x100, 0x1'0000, 0x1'0000'0000};
  head.argument = loadBigEndian(at, width);
  if (head.argument < kSmallest[information - 24]) {
    fault = Fault::notShortest;
    return nullptr;
  }
  return at + width;
}

// Reads the content of a text, behind its head.
inline const std::byte* readText(const std::byte* at, const std::byte* end, std::uint64_t size,
                                 Fault& fault) {
  if (size > bytesBetween(at, end)) {
    fault = Fault::truncated;
    return nullptr;
  }
  const auto length = static_cast<std::size_t>(size);
  if (!isUtf8(at, length, end)) [[unlikely]] {
    fault = Fault::badUtf8;
    return nullptr;
  }
  return at + length;
}

// Reads a floating-point number of any width. `at` must be before `end` and its major type
// `simple`; any other head of that type is a simpleValue, indefiniteLength or reservedHead fault.
inline const std::byte* readReal(const std::byte* at, const std::byte* end, double& value,
                                 Fault& fault) {
  const auto initial = std::to_integer<std::uint8_t>(*at++);
  if (initial < kHalf || initial > kDouble) {
    fault = initial == 0xff     ? Fault::indefiniteLength
            : initial > kDouble ? Fault::reservedHead
                                : Fault::simpleValue;
    return nullptr;
  }
  const std::size_t width = std::size_t{2} << (initial - kHalf);
  if (bytesBetween(at, end) < width) {
    fault = Fault::truncated;
    return nullptr;
  }
  const std::uint64_t bits = loadBigEndian(at, width);
  if (initial == kDouble) {
    value = std::bit_cast<double>(bits);
  } else if (initial == kFloat) {
    value = static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
  } else {
    // Moves the exponent into the bits of a float and corrects it by a power of two, which also
    // normalises subnormals.
    const auto half = static_cast<std::uint32_t>(bits);
    const bool notFinite = (half & 0x7c00) == 0x7c00;
    const std::uint32_t exponentForm = (half & 0x7fff) << 13 | (notFinite ? 0x7f80'0000U : 0U);
    const float magnitude = std::bit_cast<float>(exponentForm) * (notFinite ? 1.0F : 0x1p112F);
    value = static_cast<double>((half & 0x8000) != 0 ? -magnitude : magnitude);
  }
  return at + width;
}

// Reads the content of a date, behind its tag.
const std::byte* readDate(const std::byte* at, const std::byte* end, double& seconds, Fault& fault);

// Reads one whole item, nested no deeper than `maximumDepth`.
const std::byte* readItem(const std::byte* at, const std::byte* end, std::size_t maximumDepth,
                          Fault& fault);

}  // namespace keel::cbor
