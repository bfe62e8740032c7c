// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>

namespace keel {

// Tells refusals at fixed times after their attempts began, so that how long one took says nothing
// about its reason: after `step`, or, when finding out took longer, after the next whole multiple
// of it. Immutable; from any thread.
class RefusalTime {
 public:
  using Clock = std::chrono::steady_clock;

  // Far longer than finding out takes, even when hashing a password is made dear and the machine is
  // busy; short enough for people not to mind.
  static constexpr std::chrono::milliseconds kStep{500};

  explicit RefusalTime(std::chrono::milliseconds step = kStep);
  // For tests: another clock.
  RefusalTime(std::chrono::milliseconds step, std::function<Clock::time_point()> now,
              std::function<void(Clock::time_point)> waitUntil);

  Clock::time_point now() const { return now_(); }
  // Blocks until it is time to tell the refusal of an attempt that began at `start`.
  void await(Clock::time_point start) const;

 private:
  const std::chrono::milliseconds step_;
  const std::function<Clock::time_point()> now_;
  const std::function<void(Clock::time_point)> waitUntil_;
};

}  // namespace keel
