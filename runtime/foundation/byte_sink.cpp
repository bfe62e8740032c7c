// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/byte_sink.h"

#include <algorithm>

#include "runtime/foundation/secret.h"

namespace keel {

void ByteSink::grow(std::size_t moreBytes) {
  constexpr std::size_t kFirstBytes = 64;
  const std::size_t capacity = std::max({kFirstBytes, 2 * capacity_, size_ + moreBytes});
  auto grown = std::make_unique_for_overwrite<std::byte[]>(capacity);
  if (size_ > 0) {
    std::memcpy(grown.get(), data_.get(), size_);
    // It may hold part of a password; growing is rare enough to wipe always.
    wipe(bytes());
  }
  data_ = std::move(grown);
  capacity_ = capacity;
}

}  // namespace keel
