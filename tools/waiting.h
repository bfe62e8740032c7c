// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>

namespace keel {

// Waits on behalf of a long-running command for messages, input, its deadline, or the loss of the
// reader of its output.
class Waiting {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Reason { message, input, timeIsUp, outputGone };

  // `message` and `output` are descriptors to watch, borrowed, or -1; `timeout` counts from now.
  Waiting(int message, int output, std::optional<std::chrono::milliseconds> timeout);

  // Returns the time left, rounded up; none without a deadline.
  std::optional<std::chrono::milliseconds> left() const;
  // Removes the deadline.
  void dropEnd() { end_.reset(); }

  // Waits. `input` is watched too unless it is negative. Messages have the highest priority, the
  // deadline the lowest.
  Reason next(int input) const;

 private:
  const int message_;
  const int output_;
  std::optional<Clock::time_point> end_;
};

}  // namespace keel
