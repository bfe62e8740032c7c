// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor_reading.h"

namespace keel::cbor {

namespace {

bool isContinuation(std::byte byte) {
  return (byte & std::byte{0xc0}) == std::byte{0x80};
}

// The length of the well-formed sequence of two bytes or more that begins at `at`, or 0. What the
// second byte may be depends on the first (RFC 3629, section 4): that is where overlong forms,
// surrogates and numbers above U+10FFFF are told apart.
std::size_t sequenceLength(const std::byte* at, const std::byte* end) {
  const auto lead = std::to_integer<std::uint8_t>(*at);
  if (lead < 0xc2 || lead > 0xf4) return 0;
  const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (bytesBetween(at, end) < length) return 0;
  const auto second = std::to_integer<std::uint8_t>(at[1]);
  const std::uint8_t lowest = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const std::uint8_t highest = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  if (second < lowest || second > highest) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (!isContinuation(at[i])) return 0;
  }
  return length;
}

}  // namespace

bool isUtf8Beyond(const std::byte* at, const std::byte* end) {
  while (at != end) {
    if (end - at >= 8 && isAscii(at, 8, end)) {
      at += 8;
    } else if (*at < std::byte{0x80}) {
      ++at;
    } else {
      // Whoever writes beyond ASCII seldom writes one such character alone.
      do {
        const std::size_t length = sequenceLength(at, end);
        if (length == 0) return false;
        at += length;
      } while (at != end && *at >= std::byte{0x80});
    }
  }
  return true;
}

bool isUtf8(std::string_view text) {
  const auto* at = reinterpret_cast<const std::byte*>(text.data());
  return isAscii(at, text.size(), at + text.size()) || isUtf8Beyond(at, at + text.size());
}

}  // namespace keel::cbor
