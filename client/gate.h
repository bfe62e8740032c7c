// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <mutex>

namespace keel {

// Serialises the callbacks of one client on the library's thread. Once closed, no callback runs.
class Gate {
 public:
  template <class Callback>
  void pass(Callback callback) {
    const std::lock_guard lock(running_);
    if (!closed_.load(std::memory_order_relaxed)) callback();
  }

  // When close() or afterRunning() returns, no callback is running except the caller itself.
  // `onLibraryThread`: the caller is on the library's thread, so a running callback is the caller.
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
