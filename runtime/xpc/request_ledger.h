// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "runtime/wire/limits.h"

namespace keel::xpc {

// What the peer of one connection has asked for and not been given yet: requests without an answer,
// messages that wait on the connection's queue, a heavy request. Decides when that is so much that
// the peer is not read for a while. Counted from any thread; decisions are made on the I/O thread.
class RequestLedger {
 public:
  // Requests are taken on a queue of the connection's own, off the I/O thread.
  void setShared() { isShared_ = true; }

  // Returns true when the peer should not be read any more, and is.
  bool takeRequest() { return change(1) > limits::kUnansweredRequests && !isPaused(); }
  void requestAnswered() { change(-1); }

  void messageQueued(std::size_t sizeBytes) { queuedBytes_ += sizeBytes; }
  void messageServed(std::size_t sizeBytes) { queuedBytes_ -= sizeBytes; }

  void beginHeavy(std::uint64_t requestId) { heavyRequestId_ = requestId; }
  // Returns true for the heavy request, which is over.
  bool endHeavy(std::uint64_t requestId) {
    if (requestId != heavyRequestId_) return false;
    heavyRequestId_ = 0;
    return true;
  }

  bool isPaused() const { return isPaused_.load(std::memory_order_relaxed); }
  // Decides anew. Returns the decision when it has changed: true pauses reading. Once paused, half
  // of each limit has to be free again, so that not every message causes a pause.
  std::optional<bool> decide() {
    const std::size_t divisor = isPaused() ? 2 : 1;
    const bool pause = unansweredCount_ > limits::kUnansweredRequests / divisor ||
                       queuedBytes_ > limits::kPauseReadingBytes / divisor || heavyRequestId_ != 0;
    if (pause == isPaused()) return std::nullopt;
    isPaused_ = pause;
    return pause;
  }

 private:
  // Returns the new count. On the I/O thread alone nothing has to be locked.
  std::uint32_t change(std::int32_t difference) {
    const auto added = static_cast<std::uint32_t>(difference);
    if (isShared_) return unansweredCount_.fetch_add(added, std::memory_order_relaxed) + added;
    const std::uint32_t changed = unansweredCount_.load(std::memory_order_relaxed) + added;
    unansweredCount_.store(changed, std::memory_order_relaxed);
    return changed;
  }

  std::atomic<std::uint64_t> heavyRequestId_{0};  // 0: none waits for its answer
  std::atomic<std::size_t> queuedBytes_{0};
  std::atomic<std::uint32_t> unansweredCount_{0};
  std::atomic<bool> isPaused_{false};
  bool isShared_ = false;
};

}  // namespace keel::xpc
