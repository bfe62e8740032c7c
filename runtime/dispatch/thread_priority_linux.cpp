// SPDX-License-Identifier: Apache-2.0
// Each thread has a priority of its own here (sched(7)), and the calls mean the calling one.
// sched_setattr(2), since filters that forbid real-time priorities (RestrictRealtime= of a unit)
// forbid the older call together with its flag. The C library has neither a function for it nor its
// structure, and the kernel's header does not go with the library's.
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "runtime/dispatch/thread_priority.h"

namespace keel {

namespace {

// As sched_setattr(2) has it.
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

std::error_code preferThisThread() {
  if (::getpriority(PRIO_PROCESS, 0) != 0) return {};
  SchedulingAttributes attributes{};
  attributes.size = sizeof attributes;
  attributes.policy = SCHED_OTHER;
  attributes.flags = kResetOnFork;
  attributes.nice = -kPreferredSteps;
  if (::syscall(SYS_sched_setattr, 0, &attributes, 0) == 0) return {};
  return {errno, std::system_category()};
}

}  // namespace keel
