// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <limits>

namespace keel {

// Counts the bytes of the buffers charged to it. Lives as long as the process. From any thread.
class MemoryAccount {
 public:
  MemoryAccount() = default;
  // An account that is also added to `total`, in steps, so that small changes cost nothing extra.
  // `total` is never off by more than kStepBytes per account.
  explicit MemoryAccount(MemoryAccount& total) : total_(&total) {}
  MemoryAccount(const MemoryAccount&) = delete;
  MemoryAccount& operator=(const MemoryAccount&) = delete;
  // Returns the account that is charged by default.
  static MemoryAccount& ofProcess();

  static constexpr std::size_t kStepBytes = 4096;

  std::size_t bytes() const { return bytes_.load(std::memory_order_relaxed); }
  void charge(std::size_t bytes) {
    update(bytes_.fetch_add(bytes, std::memory_order_relaxed) + bytes);
  }
  void refund(std::size_t bytes) {
    update(bytes_.fetch_sub(bytes, std::memory_order_relaxed) - bytes);
  }

 private:
  void update(std::size_t bytes) {
    if (total_ == nullptr) return;
    // Unsigned: a negative difference is huge.
    if (bytes - reportedBytes_.load(std::memory_order_relaxed) + kStepBytes > 2 * kStepBytes)
        [[unlikely]] {
      total_->charge(bytes - reportedBytes_.exchange(bytes, std::memory_order_relaxed));
    }
  }

  // On a cache line of its own: every thread that creates or destroys a buffer writes it.
  alignas(64) std::atomic<std::size_t> bytes_{0};
  std::atomic<std::size_t> reportedBytes_{0};  // added to the total so far
  MemoryAccount* total_ = nullptr;
};

// The account that pays for what a peer sends, and its limit. Quotas of users live as long as the
// process.
struct MemoryQuota {
  // Returns the quota without a limit.
  static const MemoryQuota& ofProcess() {
    static const MemoryQuota quota;
    return quota;
  }

  MemoryAccount* account = &MemoryAccount::ofProcess();
  std::size_t limitBytes = std::numeric_limits<std::size_t>::max();
  // An account that several share, and its limit. Each of them is granted at most what is still
  // free, so no single one takes it all.
  const MemoryAccount* total = nullptr;
  std::size_t totalLimitBytes = 0;
  // Its account may take all that the others leave, rather than no more than is left then.
  bool mayTakeAll = false;

  std::size_t grantedBytes() const {
    if (total == nullptr) return limitBytes;
    std::size_t held = total->bytes();
    // The total lags behind its accounts (see MemoryAccount).
    if (mayTakeAll) held -= std::min(held, account->bytes());
    return std::min(limitBytes, held < totalLimitBytes ? totalLimitBytes - held : 0);
  }
  // Returns how many more bytes may be charged within `limit`, a grant. Where a
  // grant is what others leave, it shrinks as the account grows.
  std::size_t roomBytes(std::size_t limit) const {
    const std::size_t held = account->bytes();
    const std::size_t left = limit > held ? limit - held : 0;
    return total == nullptr || mayTakeAll ? left : left / 2 - left / 32;
  }
  // Returns true while the account holds more than it is granted, names included.
  bool isExceeded() const { return account->bytes() > grantedNameBytes(); }
  // Names may exceed the quota by an eighth: a client over quota must still be able to name what
  // it releases.
  std::size_t grantedNameBytes() const {
    const std::size_t granted = grantedBytes();
    return granted + std::min(granted / 8, std::numeric_limits<std::size_t>::max() - granted);
  }
};

}  // namespace keel
