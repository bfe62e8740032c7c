// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>

namespace keel {

// Computes the pause before the next attempt: exponential within bounds, with a random jitter that
// shortens it by up to a half.
class BackOff {
 public:
  using Duration = std::chrono::milliseconds;
  // `random` returns numbers in [0, 1).
  BackOff(Duration minimum, Duration maximum, std::function<double()> random);

  Duration maximum() const { return maximum_; }
  Duration next();
  void reset() { pause_ = minimum_; }

 private:
  const Duration minimum_;
  const Duration maximum_;
  const std::function<double()> random_;
  Duration pause_;
};

}  // namespace keel
