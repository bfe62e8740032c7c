// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/foundation/cbor.h"

// What everything that reads encoded items is made of: heads, text, whole items. In a header
// because the daemon does this for every member of every message. All of it reads from `at` up to
// `end` and never beyond; a function that yields a position yields null for a fault.

namespace keel::cbor {

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
Unsigned loadAs(const std::byte* at, std::endian order) {
  Unsigned value;
  std::memcpy(&value, at, sizeof value);
  return order == std::endian::native ? value : std::byteswap(value);
}

// A big-endian number of 1, 2, 4 or 8 bytes.
inline std::uint64_t loadBigEndian(const std::byte* at, std::size_t width) {
  switch (width) {
    case 1:
      return std::to_integer<std::uint8_t>(*at);
    case 2:
      return loadAs<std::uint16_t>(at, std::endian::big);
    case 4:
      return loadAs<std::uint32_t>(at, std::endian::big);
    default:
      return loadAs<std::uint64_t>(at, std::endian::big);
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

// Reads a head of any major type but `simple`. `at` must be before `end`. Yields where the head
// ends.
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

// Whether the `size` bytes at `at` are ASCII. Loads eight bytes at a time, reaching over what lies
// behind them if need be, but not over `end`.
inline bool isAscii(const std::byte* at, std::size_t size, const std::byte* end) {
  constexpr std::uint64_t kHighBits = 0x8080'8080'8080'8080;
  const auto load = [](const std::byte* from) {
    return loadAs<std::uint64_t>(from, std::endian::little);
  };
  std::uint64_t seen = 0;
  if (size >= 8) {
    const std::byte* last = at + size - 8;
    for (; last - at >= 32; at += 32)
      seen |= (load(at) | load(at + 8)) | (load(at + 16) | load(at + 24));
    for (; at < last; at += 8) seen |= load(at);
    seen |= load(last);
  } else if (end - at >= 8) {
    seen = load(at) & ((std::uint64_t{1} << (8 * size)) - 1);
  } else {
    for (; size > 0; --size) seen |= std::to_integer<std::uint64_t>(at[size - 1]);
  }
  return (seen & kHighBits) == 0;
}

// isUtf8() for what is not ASCII alone.
bool isUtf8Beyond(const std::byte* at, const std::byte* end);

// Reads the content of a text whose head is read. Yields where it ends.
inline const std::byte* readTextContent(const std::byte* at, const std::byte* end,
                                        std::uint64_t size, Fault& fault) {
  if (size > bytesBetween(at, end)) {
    fault = Fault::truncated;
    return nullptr;
  }
  const auto length = static_cast<std::size_t>(size);
  if (!isAscii(at, length, end) && !isUtf8Beyond(at, at + length)) [[unlikely]] {
    fault = Fault::badUtf8;
    return nullptr;
  }
  return at + length;
}

// Reads a floating-point number of any width. `at` must be before `end` and its major type
// `simple`; a head of that type that is no floating-point number is a simpleValue, indefiniteLength
// or reservedHead fault.
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
    // The exponent moves to its place in a float and is put right by a power of two, which also
    // makes subnormals normal.
    const auto half = static_cast<std::uint32_t>(bits);
    const bool notFinite = (half & 0x7c00) == 0x7c00;
    const std::uint32_t exponentForm = (half & 0x7fff) << 13 | (notFinite ? 0x7f80'0000U : 0U);
    const float magnitude = std::bit_cast<float>(exponentForm) * (notFinite ? 1.0F : 0x1p112F);
    value = static_cast<double>((half & 0x8000) != 0 ? -magnitude : magnitude);
  }
  return at + width;
}

// Reads the content of a date, that is what follows tag 1.
const std::byte* readDateContent(const std::byte* at, const std::byte* end, double& seconds,
                                 Fault& fault);

// Reads one item whole, as validate() does.
const std::byte* readItem(const std::byte* at, const std::byte* end, std::size_t maximumDepth,
                          Fault& fault);

}  // namespace keel::cbor
