// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>

namespace keel::bench {

// What a process has used up to now, all of its threads together, by /proc.
struct DaemonUsage {
  std::chrono::nanoseconds processor{};
  std::uint64_t wakeUpCount = 0;  // times that a thread had nothing to do and slept
  std::uint64_t residentBytes = 0;

  // Throws std::runtime_error when there is no such process.
  static DaemonUsage of(pid_t process);
};

// Processor time of this process, which is the load.
std::chrono::nanoseconds ownProcessorTime();

}  // namespace keel::bench
