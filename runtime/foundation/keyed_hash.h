// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace keel {

using HashKey = std::array<std::uint64_t, 2>;

// SipHash-1-3 (Aumasson and Bernstein): fast, and without the key nobody can choose names that
// collide.
std::uint64_t sipHash13(std::span<const std::byte> bytes, const HashKey& key);

// Returns the random key of this process, drawn on first use.
const HashKey& processHashKey();

}  // namespace keel
