// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <unordered_map>
#include <utility>

#include "runtime/dispatch/block.h"
#include "runtime/foundation/buffer.h"

namespace keel::xpc {

// Heavy requests of one user take turns, over all its connections: their answers may be as large as all that the service holds.
// Shared by the connections of a listener; lives on the I/O thread.
class HeavyTurns {
 public:
  // Runs `serve` as soon as it is its turn, which may be at once. It, or what it set going, calls leave() in the end.
  void enter(const MemoryAccount* user, Block serve) {
    const auto [found, isFree] = waitingByUser_.try_emplace(user);
    if (isFree) return serve();
    found->second.push_back(std::move(serve));
  }

  void leave(const MemoryAccount* user) {
    const auto found = waitingByUser_.find(user);
    if (found->second.empty()) {
      waitingByUser_.erase(found);
      return;
    }
    Block next = std::move(found->second.front());
    found->second.pop_front();
    next();
  }

 private:
  std::unordered_map<const MemoryAccount*, std::deque<Block>> waitingByUser_;  // of whoever has a turn now
};

}  // namespace keel::xpc
