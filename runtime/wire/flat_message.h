// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
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

// Calls `visit` with each frame of a message, without its length. For tests.
template <class Visit>
void forEachFrame(const OutgoingMessage& message, Visit visit) {
  const std::vector<std::byte> all = flat(message);
  std::span<const std::byte> rest = all;
  while (rest.size() >= kLengthBytes) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < kLengthBytes; ++i) {
      length |= std::to_integer<std::size_t>(rest[i]) << (8 * i);
    }
    visit(rest.subspan(kLengthBytes, length));
    rest = rest.subspan(kLengthBytes + length);
  }
}

}  // namespace keel::xpc
