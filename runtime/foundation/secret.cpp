// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/secret.h"

#include <cstring>
#include <utility>

namespace keel {

Secret::Secret(std::size_t sizeBytes)
    : bytes_(std::make_unique<std::byte[]>(sizeBytes)), size_(sizeBytes) {}

Secret::Secret(std::string_view text) : Secret(text.size()) {
  if (!text.empty()) std::memcpy(bytes_.get(), text.data(), text.size());
}

Secret::Secret(Secret&& other) noexcept
    : bytes_(std::move(other.bytes_)), size_(std::exchange(other.size_, 0)) {}

Secret& Secret::operator=(Secret&& other) noexcept {
  wipe(bytes());
  size_ = std::exchange(other.size_, 0);
  bytes_ = std::move(other.bytes_);
  return *this;
}

Secret::~Secret() {
  wipe(bytes());
}

void Secret::shrink(std::size_t sizeBytes) {
  if (sizeBytes >= size_) return;
  wipe(bytes().subspan(sizeBytes));
  size_ = sizeBytes;
}

void wipe(std::span<std::byte> bytes) {
  if (bytes.empty()) return;
  ::explicit_bzero(bytes.data(), bytes.size());
  // The secret was copied through registers, which keep it until they are reused. A copy of the
  // same size goes through the same ones.
  void* (*volatile copy)(void*, const void*, std::size_t) = std::memmove;
  copy(bytes.data(), bytes.data(), bytes.size());
}

[[gnu::noinline]] void wipeStack() {
  std::byte below[kStackBytes];
  wipe(below);
}

}  // namespace keel
