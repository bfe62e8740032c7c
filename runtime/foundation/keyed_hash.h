// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace keel {

using HashKey = std::array<std::uint64_t, 2>;

// SipHash with 1 compression and 3 finalisation rounds (Aumasson and Bernstein): fast, and without
// the key nobody can choose names that collide.
std::uint64_t sipHash13(std::span<const std::byte> bytes, const HashKey& key);

// The key of this process: random, drawn on first use, the same until it ends.
const HashKey& processHashKey();

}  // namespace keel
