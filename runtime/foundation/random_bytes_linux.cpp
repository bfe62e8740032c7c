// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/random_bytes.h"

#include <unistd.h>

#include <algorithm>

namespace keel {

namespace {

// Maximum of one getentropy(3) call.
constexpr std::size_t kEntropyBytes = 256;

}  // namespace

int SecRandomCopyBytes(std::span<std::byte> bytes) {
  while (!bytes.empty()) {
    const std::size_t count = std::min(bytes.size(), kEntropyBytes);
    if (::getentropy(bytes.data(), count) != 0) return -1;
    bytes = bytes.subspan(count);
  }
  return 0;
}

}  // namespace keel
