// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>

namespace keel::bench {

// Resources used by all threads of a process up to now, from /proc.
struct DaemonUsage {
  std::chrono::nanoseconds processor{};
  std::uint64_t wakeUpCount = 0;  // voluntary context switches
  std::uint64_t residentBytes = 0;

  // Throws std::runtime_error if there is no such process.
  static DaemonUsage of(pid_t process);
};

// Returns the processor time of this process, the load.
std::chrono::nanoseconds ownProcessorTime();

}  // namespace keel::bench
