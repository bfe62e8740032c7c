// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>

namespace keel {

// How long to wait before the next attempt: doubled from one to the next within bounds, shortened
// at random by up to a half.
class BackOff {
 public:
  using Duration = std::chrono::milliseconds;
  // `random` yields numbers from 0 up to 1.
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
