// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

#include "runtime/wire/message.h"

namespace keel::xpc {

// Returns the bytes of a message as they are on the wire, length fields included. For tests.
inline std::vector<std::byte> flat(const OutgoingMessage& message) {
  std::vector<std::byte> all;
  const auto append = [&all](std::span<const std::byte> bytes) {
    all.insert(all.end(), bytes.begin(), bytes.end());
  };
  const std::span<const std::byte> own = message.bytes();
  std::size_t taken = 0;
  for (const OutgoingMessage::Splice& splice : message.splices()) {
    append(own.subspan(taken, splice.offset - taken));
    append(splice.buffer->bytes());
    taken = splice.offset;
  }
  append(own.subspan(taken));
  return all;
}

// Calls `visit` with each whole frame that `bytes` begin with, without its length. Returns how many
// bytes these frames take. For tests.
template <class Visit>
std::size_t forEachFrame(std::span<const std::byte> bytes, Visit visit) {
  std::span<const std::byte> rest = bytes;
  while (rest.size() >= kLengthBytes) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < kLengthBytes; ++i) {
      length |= std::to_integer<std::size_t>(rest[i]) << (8 * i);
    }
    if (rest.size() - kLengthBytes < length) break;
    visit(rest.subspan(kLengthBytes, length));
    rest = rest.subspan(kLengthBytes + length);
  }
  return bytes.size() - rest.size();
}

// Calls `visit` with each frame of a message, without its length. For tests.
template <class Visit>
void forEachFrame(const OutgoingMessage& message, Visit visit) {
  forEachFrame(std::span<const std::byte>(flat(message)), std::move(visit));
}

}  // namespace keel::xpc
