// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/foundation/value.h"

// Our strict subset of CBOR (RFC 8949). What is accepted, everywhere and always:
// - one item and nothing behind it; definite lengths only; heads in their shortest form;
// - integers from -2^63 to 2^64-1; floating point of 16, 32 and 64 bits; false, true, null;
// - text in valid UTF-8; byte strings; arrays; maps whose keys are text;
// - tag 1 (date): an integer or a finite floating-point number of any width;
// - tag 51741 (error): an array of three, domain (text), code (an integer that fits int64), user
// info (a map or null);
// - nothing nested deeper than the depth given: a scalar has depth 0, [] has depth 1, [[]] has
// depth 2; a tag adds none. A map's key that stands twice is accepted. validate() and decode()
// accept exactly the same bytes.

namespace keel::cbor {

inline constexpr std::uint64_t kDateTag = 1;
inline constexpr std::uint64_t kErrorTag = 51741;
// No maximumDepth may be above this.
inline constexpr std::size_t kDepthCapacity = 66;

// Why bytes were refused. describe() has the words.
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
std::string_view describe(Fault fault);

// Checks that `bytes` is exactly one acceptable item. One pass, iterative, no allocation.
std::expected<void, Fault> validate(std::span<const std::byte> bytes, std::size_t maximumDepth);

// Decodes exactly one acceptable item. Allocates no more than a small multiple of the size of
// `bytes`.
std::expected<Value, Fault> decode(std::span<const std::byte> bytes, std::size_t maximumDepth);

// Text in valid UTF-8 (RFC 3629: no surrogates, no overlong forms, nothing above U+10FFFF).
bool isUtf8(std::string_view text);

}  // namespace keel::cbor
