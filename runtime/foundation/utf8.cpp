// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/utf8.h"

namespace keel {

namespace {

bool isContinuation(std::byte byte) {
  return (byte & std::byte{0xc0}) == std::byte{0x80};
}

// Returns the length of the well-formed multi-byte sequence at `at`, or 0. The range of the second
// byte depends on the first (RFC 3629, section 4), which rules out overlong forms, surrogates and
// code points above U+10FFFF.
std::size_t sequenceLength(const std::byte* at, const std::byte* end) {
  const auto lead = std::to_integer<std::uint8_t>(*at);
  if (lead < 0xc2 || lead > 0xf4) return 0;
  const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (static_cast<std::size_t>(end - at) < length) return 0;
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

bool isUtf8BeyondAscii(const std::byte* at, const std::byte* end) {
  while (at != end) {
    if (end - at >= 8 && isAscii(at, 8, end)) {
      at += 8;
    } else if (*at < std::byte{0x80}) {
      ++at;
    } else {
      // Characters beyond ASCII seldom come alone.
      do {
        const std::size_t length = sequenceLength(at, end);
        if (length == 0) return false;
        at += length;
      } while (at != end && *at >= std::byte{0x80});
    }
  }
  return true;
}

}  // namespace keel
