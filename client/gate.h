// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <mutex>

namespace keel {

// What every callback of one client passes through, on the library's thread. Closed, it lets none
// through any more.
class Gate {
 public:
  template <class Callback>
  void pass(Callback callback) {
    const std::lock_guard lock(running_);
    if (!closed_.load(std::memory_order_relaxed)) callback();
  }

  // When close() or afterRunning() returns, no callback is in the gate, but for the one that calls
  // it. `onLibraryThread`: then either no callback runs, or it is this one.
  void close(bool onLibraryThread) {
    afterRunning(onLibraryThread, [this] { closed_.store(true, std::memory_order_relaxed); });
  }
  template <class Change>
  void afterRunning(bool onLibraryThread, Change change) {
    if (onLibraryThread) return change();
    const std::lock_guard lock(running_);
    change();
  }

 private:
  std::mutex running_;
  std::atomic<bool> closed_{false};
};

}  // namespace keel
