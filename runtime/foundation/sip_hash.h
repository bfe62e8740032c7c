// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "runtime/foundation/keyed_hash.h"

namespace keel {

// 64-bit SipHash-c-d for any number of rounds, so that the variant in use can be tested with the
// published vectors of another. Everything else calls sipHash13() (keyed_hash.h).
template <int compressionRounds, int finalisationRounds>
class SipHash {
 public:
  static std::uint64_t of(std::span<const std::byte> bytes, const HashKey& key) {
    SipHash state(key);
    const std::byte* at = bytes.data();
    for (std::size_t left = bytes.size(); left >= 8; left -= 8, at += 8) state.absorb(word(at, 8));
    state.absorb(word(at, bytes.size() % 8) | std::uint64_t{bytes.size()} << 56);
    return state.finish();
  }

 private:
  explicit SipHash(const HashKey& key)
      : v0_(key[0] ^ 0x736f6d6570736575),
        v1_(key[1] ^ 0x646f72616e646f6d),
        v2_(key[0] ^ 0x6c7967656e657261),
        v3_(key[1] ^ 0x7465646279746573) {}

  // Loads the first `count` bytes at `at` (8 at most) as a little-endian number.
  static std::uint64_t word(const std::byte* at, std::size_t count) {
    std::uint64_t value = 0;
    if (count == 0) return value;
    std::memcpy(&value, at, count);
    if constexpr (std::endian::native == std::endian::big) value = std::byteswap(value);
    return value;
  }

  void round() {
    v0_ += v1_;
    v2_ += v3_;
    v1_ = std::rotl(v1_, 13) ^ v0_;
    v3_ = std::rotl(v3_, 16) ^ v2_;
    v0_ = std::rotl(v0_, 32);
    v2_ += v1_;
    v0_ += v3_;
    v1_ = std::rotl(v1_, 17) ^ v2_;
    v3_ = std::rotl(v3_, 21) ^ v0_;
    v2_ = std::rotl(v2_, 32);
  }

  void absorb(std::uint64_t word) {
    v3_ ^= word;
    for (int i = 0; i < compressionRounds; ++i) round();
    v0_ ^= word;
  }

  std::uint64_t finish() {
    v2_ ^= 0xff;
    for (int i = 0; i < finalisationRounds; ++i) round();
    return v0_ ^ v1_ ^ v2_ ^ v3_;
  }

  std::uint64_t v0_, v1_, v2_, v3_;
};

}  // namespace keel
