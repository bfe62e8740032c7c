// SPDX-License-Identifier: Apache-2.0
#include "client/back_off.h"

#include <algorithm>
#include <utility>

namespace keel {

namespace {

constexpr BackOff::Duration kLongest = std::chrono::years(1);

}  // namespace

BackOff::BackOff(Duration minimum, Duration maximum, std::function<double()> random)
    : minimum_(std::clamp(minimum, Duration(1), kLongest)),
      maximum_(std::clamp(maximum, minimum_, kLongest)),
      random_(std::move(random)),
      pause_(minimum_) {}

BackOff::Duration BackOff::next() {
  const Duration pause = pause_;
  pause_ = pause_ > maximum_ / 2 ? maximum_ : pause_ * 2;
  const double share = 1.0 - std::clamp(random_(), 0.0, 1.0) / 2;
  return std::max(Duration(1),
                  Duration(static_cast<Duration::rep>(static_cast<double>(pause.count()) * share)));
}

}  // namespace keel
