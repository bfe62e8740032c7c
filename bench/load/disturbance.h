// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>

#include "bench/load/fan_out.h"

namespace keel::bench {

// How long one client's large affair holds up others: a publisher and its subscriber go on at a
// steady rate meanwhile.
class Disturbance {
 public:
  Disturbance(Crowd& crowd, pid_t daemon);

  // The dump of `itemCount` items.
  Result dump(std::size_t itemCount);
  // The end of a connection with `itemCount` items and as many subscriptions.
  Result cleanUp(std::size_t itemCount);

 private:
  Client& owner(std::size_t itemCount, Role role);
  // Runs quietly, then does it, and goes on until `isOver`.
  Result measure(const std::function<void()>& begin, const std::function<bool()>& isOver);

  Crowd& crowd_;
  const pid_t daemon_;
  FanOut steady_;
};

}  // namespace keel::bench
