// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// Valid UTF-8 (RFC 3629): no surrogates, no overlong forms, nothing above U+10FFFF.

namespace keel {

// Returns true if the `size` bytes at `at` are ASCII. Loads eight bytes at a time, possibly bytes
// behind the text, but never beyond `readableEnd`.
inline bool isAscii(const std::byte* at, std::size_t size, const std::byte* readableEnd) {
  constexpr std::uint64_t kHighBits = 0x8080'8080'8080'8080;
  const auto load = [](const std::byte* from) {
    std::uint64_t word;
    std::memcpy(&word, from, sizeof word);
    return std::endian::native == std::endian::little ? word : std::byteswap(word);
  };
  std::uint64_t seen = 0;
  if (size >= 8) {
    const std::byte* last = at + size - 8;
    for (; last - at >= 32; at += 32)
      seen |= (load(at) | load(at + 8)) | (load(at + 16) | load(at + 24));
    for (; at < last; at += 8) seen |= load(at);
    seen |= load(last);
  } else if (readableEnd - at >= 8) {
    seen = load(at) & ((std::uint64_t{1} << (8 * size)) - 1);
  } else {
    for (; size > 0; --size) seen |= std::to_integer<std::uint64_t>(at[size - 1]);
  }
  return (seen & kHighBits) == 0;
}

// Returns true if the bytes are valid UTF-8; fast where few of them are ASCII.
bool isUtf8BeyondAscii(const std::byte* at, const std::byte* end);

// Checks text inside a buffer that is readable up to `readableEnd`. Inline: the daemon does this
// for every text of every message.
inline bool isUtf8(const std::byte* at, std::size_t size, const std::byte* readableEnd) {
  return isAscii(at, size, readableEnd) || isUtf8BeyondAscii(at, at + size);
}

inline bool isUtf8(std::string_view text) {
  const auto* at = reinterpret_cast<const std::byte*>(text.data());
  return isUtf8(at, text.size(), at + text.size());
}

}  // namespace keel
