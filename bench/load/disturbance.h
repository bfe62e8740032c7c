// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>

#include "bench/load/fan_out.h"

namespace keel::bench {

// Measures how long a large operation of one client delays others: a publisher and its subscriber
// continue at a steady rate meanwhile.
class Disturbance {
 public:
  Disturbance(Crowd& crowd, pid_t daemon);

  // Measures a dump of `itemCount` items.
  Result dump(std::size_t itemCount);
  // Measures the end of a connection with `itemCount` items and as many subscriptions.
  Result cleanUp(std::size_t itemCount);

 private:
  Client& owner(std::size_t itemCount, Role role);
  // Runs undisturbed, starts the operation, and continues until `isOver`.
  Result measure(const std::function<void()>& begin, const std::function<bool()>& isOver);

  Crowd& crowd_;
  const pid_t daemon_;
  FanOut steady_;
};

}  // namespace keel::bench
