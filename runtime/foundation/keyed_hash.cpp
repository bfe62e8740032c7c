// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/keyed_hash.h"

#include <unistd.h>

#include "runtime/foundation/check.h"
#include "runtime/foundation/sip_hash.h"

namespace keel {

std::uint64_t sipHash13(std::span<const std::byte> bytes, const HashKey& key) {
  return SipHash<1, 3>::of(bytes, key);
}

const HashKey& processHashKey() {
  static const HashKey kKey = [] {
    HashKey drawn;
    KEEL_CHECK(::getentropy(drawn.data(), sizeof drawn) == 0);
    return drawn;
  }();
  return kKey;
}

}  // namespace keel
