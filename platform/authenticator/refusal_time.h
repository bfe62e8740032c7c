// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>

namespace keel {

// Delays refusals to fixed times after their attempts began, so that their duration reveals nothing
// about the reason: to `step`, or, if the check took longer, to its next whole multiple. Immutable;
// from any thread.
class RefusalTime {
 public:
  using Clock = std::chrono::steady_clock;

  // Far longer than a check takes, even with expensive password hashing on a busy machine; short
  // enough for people not to mind.
  static constexpr std::chrono::milliseconds kStep{500};

  explicit RefusalTime(std::chrono::milliseconds step = kStep);
  // For tests: with another clock.
  RefusalTime(std::chrono::milliseconds step, std::function<Clock::time_point()> now,
              std::function<void(Clock::time_point)> waitUntil);

  Clock::time_point now() const { return now_(); }
  // Blocks until the refusal of an attempt that began at `start` may be returned.
  void await(Clock::time_point start) const;

 private:
  const std::chrono::milliseconds step_;
  const std::function<Clock::time_point()> now_;
  const std::function<void(Clock::time_point)> waitUntil_;
};

}  // namespace keel
