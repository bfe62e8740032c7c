// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "bench/load/crowd.h"
#include "bench/load/result.h"

namespace keel::bench {

// Measures clients that connect, follow one name and stay idle: the rate at which they are served,
// and the memory per client.
class Arrivals {
 public:
  Arrivals(Crowd& crowd, pid_t daemon) : crowd_(crowd), daemon_(daemon) {}

  // Has `count` clients arrive, a few at a time.
  Result measure(std::size_t count);

 private:
  void arrive(std::size_t count);

  Crowd& crowd_;
  const pid_t daemon_;
};

}  // namespace keel::bench
