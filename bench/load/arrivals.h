// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "bench/load/crowd.h"
#include "bench/load/result.h"

namespace keel::bench {

// Clients that connect and follow one name, and then stay: how fast they are served, and what
// memory each one takes.
class Arrivals {
 public:
  Arrivals(Crowd& crowd, pid_t daemon) : crowd_(crowd), daemon_(daemon) {}

  // So many arrive, a few at a time.
  Result measure(std::size_t count);

 private:
  void arrive(std::size_t count);

  Crowd& crowd_;
  const pid_t daemon_;
};

}  // namespace keel::bench
