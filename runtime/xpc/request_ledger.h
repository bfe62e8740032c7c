// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "runtime/wire/limits.h"

namespace keel::xpc {

// Accounts for what the peer of one connection has asked for and not received yet: unanswered
// requests, queued messages, a heavy request. Decides when the peer must not be read for a while.
// Counted from any thread; decisions are made on the I/O thread.
class RequestLedger {
 public:
  // Declares that requests are received on a queue of the connection's own, off the I/O thread.
  void setShared() { isShared_ = true; }

  // Counts a request. Returns true if reading must be paused and is not.
  bool takeRequest() { return change(1) > limits::kUnansweredRequests && !isPaused(); }
  void requestAnswered() { change(-1); }

  void messageQueued(std::size_t sizeBytes) { queuedBytes_ += sizeBytes; }
  void messageServed(std::size_t sizeBytes) { queuedBytes_ -= sizeBytes; }

  void beginHeavy(std::uint64_t requestId) { heavyRequestId_ = requestId; }
  // Returns true if this was the heavy request, which is then over.
  bool endHeavy(std::uint64_t requestId) {
    if (requestId != heavyRequestId_) return false;
    heavyRequestId_ = 0;
    return true;
  }

  void setChecking(bool isChecking) { isChecking_ = isChecking; }

  bool isPaused() const { return isPaused_.load(std::memory_order_relaxed); }
  // Re-evaluates the limits. Returns the decision if it has changed: true pauses reading.
  // Hysteresis: once paused, half of each limit must be free again.
  std::optional<bool> decide() {
    const std::size_t divisor = isPaused() ? 2 : 1;
    const bool pause = unansweredCount_ > limits::kUnansweredRequests / divisor ||
                       queuedBytes_ > limits::kPauseReadingBytes / divisor ||
                       heavyRequestId_ != 0 || isChecking_;
    if (pause == isPaused()) return std::nullopt;
    isPaused_ = pause;
    return pause;
  }

 private:
  // Returns the new count. While only the I/O thread counts, no atomic read-modify-write is needed.
  std::uint32_t change(std::int32_t difference) {
    const auto added = static_cast<std::uint32_t>(difference);
    if (isShared_) return unansweredCount_.fetch_add(added, std::memory_order_relaxed) + added;
    const std::uint32_t changed = unansweredCount_.load(std::memory_order_relaxed) + added;
    unansweredCount_.store(changed, std::memory_order_relaxed);
    return changed;
  }

  std::atomic<std::uint64_t> heavyRequestId_{0};  // 0: none is unanswered
  std::atomic<std::size_t> queuedBytes_{0};
  std::atomic<std::uint32_t> unansweredCount_{0};
  std::atomic<bool> isPaused_{false};
  bool isShared_ = false;
  bool isChecking_ = false;
};

}  // namespace keel::xpc
