// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <limits>

namespace keel {

// Counts the bytes that the buffers charged to it hold together. Lives as long as the process. From
// any thread.
class MemoryAccount {
 public:
  MemoryAccount() = default;
  // One of several whose sum is kept, too: in steps, so that small changes cost nothing. `sum` is
  // never off by more than kStepBytes for each of them.
  explicit MemoryAccount(MemoryAccount& sum) : sum_(&sum) {}
  MemoryAccount(const MemoryAccount&) = delete;
  MemoryAccount& operator=(const MemoryAccount&) = delete;
  // Pays for every buffer of which nothing else is said.
  static MemoryAccount& ofProcess();

  static constexpr std::size_t kStepBytes = 4096;

  std::size_t bytes() const { return bytes_.load(std::memory_order_relaxed); }
  void charge(std::size_t bytes) {
    changeTo(bytes_.fetch_add(bytes, std::memory_order_relaxed) + bytes);
  }
  void refund(std::size_t bytes) {
    changeTo(bytes_.fetch_sub(bytes, std::memory_order_relaxed) - bytes);
  }

 private:
  void changeTo(std::size_t bytes) {
    if (sum_ == nullptr) return;
    // Unsigned: either difference that is negative is huge.
    if (bytes - summed_.load(std::memory_order_relaxed) + kStepBytes > 2 * kStepBytes)
        [[unlikely]] {
      sum_->charge(bytes - summed_.exchange(bytes, std::memory_order_relaxed));
    }
  }

  // A cache line of its own: every thread that makes or drops a buffer writes it.
  alignas(64) std::atomic<std::size_t> bytes_{0};
  std::atomic<std::size_t> summed_{0};  // what the sum knows of
  MemoryAccount* sum_ = nullptr;
};

// Whose memory pays for what a peer sends, and how much of it the peer may hold. Those of users
// live as long as the process.
struct MemoryQuota {
  // Where nobody is held to anything.
  static const MemoryQuota& ofProcess() {
    static const MemoryQuota quota;
    return quota;
  }

  MemoryAccount* account = &MemoryAccount::ofProcess();
  std::size_t limitBytes = std::numeric_limits<std::size_t>::max();
  // What several hold together, and may hold. One of them may hold as much as is still free: no
  // single one takes it all.
  const MemoryAccount* sum = nullptr;
  std::size_t sumLimitBytes = 0;

  std::size_t grantedBytes() const {
    if (sum == nullptr) return limitBytes;
    const std::size_t held = sum->bytes();
    return std::min(limitBytes, held < sumLimitBytes ? sumLimitBytes - held : 0);
  }
  // Names may go beyond by half: who holds too much must be able to say what it gives up.
  std::size_t grantedNameBytes() const {
    const std::size_t granted = grantedBytes();
    return granted + std::min(granted / 2, std::numeric_limits<std::size_t>::max() - granted);
  }
};

}  // namespace keel
