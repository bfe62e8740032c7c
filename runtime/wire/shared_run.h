// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace keel::xpc {

// Where encoded bytes lie that several output queues send: a run in a chunk that they hold together.
struct SharedRun {
  std::shared_ptr<std::byte[]> chunk;  // null: none
  std::size_t begin = 0;
};

// Bytes that are more than this stay with each queue.
inline constexpr std::size_t kLongestRunBytes = 40u << 10;

// Keeps a copy of `bytes` for all queues of this thread that send them. Runs that are made one after the other lie one behind
// the other, so that a queue which sends them all sends one piece. No run for bytes that are too many to be copied at all.
SharedRun shareRun(std::span<const std::byte> bytes);

}  // namespace keel::xpc
