// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <unordered_map>
#include <utility>

#include "runtime/dispatch/block.h"
#include "runtime/foundation/memory_account.h"

namespace keel::xpc {

// Serves one heavy request per user at a time, over all the user's connections: the answer may be
// as large as everything the service holds. Shared by the connections of a listener. Lives on the
// I/O thread.
class HeavyRequestQueue {
 public:
  // Runs `serve` once no other request of that user is being served, possibly immediately. It, or
  // what it started, calls leave() in the end.
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
  // Has an entry for each user with a request being served.
  std::unordered_map<const MemoryAccount*, std::deque<Block>> waitingByUser_;
};

}  // namespace keel::xpc
