// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>

#include "runtime/foundation/cbor_item.h"
#include "runtime/foundation/value.h"

// Our strict subset of CBOR (RFC 8949). Accepted, everywhere and always:
// - one item and nothing behind it; definite lengths only; heads in their shortest form;
// - integers from -2^63 to 2^64-1; floating point of 16, 32 and 64 bits; false, true, null;
// - text in valid UTF-8; byte strings; arrays; maps whose keys are text, duplicates included;
// - tag 1 (date): an integer or a finite floating-point number of any width;
// - tag 51741 (error): an array of three: domain (text), code (an integer that fits int64), user
//   info (a map or null);
// - nothing nested deeper than the given depth: a scalar has depth 0, [] has depth 1, [[]] has
//   depth 2; a tag adds none.
// validate() and decode() accept exactly the same bytes.

namespace keel::cbor {

// Checks that `bytes` is exactly one acceptable item. One pass, iterative, no allocation.
std::expected<void, Fault> validate(std::span<const std::byte> bytes, std::size_t maximumDepth);

// Decodes exactly one acceptable item. Allocates at most a small multiple of the size of `bytes`.
std::expected<Value, Fault> decode(std::span<const std::byte> bytes, std::size_t maximumDepth);

}  // namespace keel::cbor
