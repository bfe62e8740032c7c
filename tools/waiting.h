// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>

namespace keel {

// What a command that stays waits for: messages, input, the end of its time, or that nobody reads
// its output any more.
class Waiting {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Reason { message, input, timeIsUp, outputGone };

  // `message` and `output` are descriptors to watch, borrowed, or -1; `timeout` counts from now.
  Waiting(int message, int output, std::optional<std::chrono::milliseconds> timeout);

  // What is left of the time, rounded up; none when there is no end.
  std::optional<std::chrono::milliseconds> left() const;
  // From now on there is no end.
  void dropEnd() { end_.reset(); }

  // Waits. `input` is watched too unless it is negative. Messages come before all else, the end of
  // the time last.
  Reason next(int input) const;

 private:
  const int message_;
  const int output_;
  std::optional<Clock::time_point> end_;
};

}  // namespace keel
