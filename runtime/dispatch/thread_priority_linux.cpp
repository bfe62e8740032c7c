// SPDX-License-Identifier: Apache-2.0
// Linux gives each thread a priority of its own (sched(7)), and the calls apply to the calling one.
// Uses sched_setattr(2), since filters that forbid real-time priorities (RestrictRealtime= of a
// unit) forbid the older call together with its flag. The C library has neither a wrapper for it
// nor its structure, and the kernel's header conflicts with the library's.
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "runtime/dispatch/thread_priority.h"

namespace keel {

namespace {

// The layout of sched_setattr(2).
struct SchedulingAttributes {
  std::uint32_t size;
  std::uint32_t policy;
  std::uint64_t flags;
  std::int32_t nice;
  std::uint32_t priority;
  std::uint64_t runtime;
  std::uint64_t deadline;
  std::uint64_t period;
};
static_assert(sizeof(SchedulingAttributes) == 48);

constexpr std::uint64_t kResetOnFork = 1;

}  // namespace

std::error_code raiseThreadPriority() {
  if (::getpriority(PRIO_PROCESS, 0) != 0) return {};
  SchedulingAttributes attributes{};
  attributes.size = sizeof attributes;
  attributes.policy = SCHED_OTHER;
  attributes.flags = kResetOnFork;
  attributes.nice = -kPriorityIncrease;
  if (::syscall(SYS_sched_setattr, 0, &attributes, 0) == 0) return {};
  return {errno, std::system_category()};
}

}  // namespace keel
