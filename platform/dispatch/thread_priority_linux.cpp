// SPDX-License-Identifier: Apache-2.0
// Each thread has a priority of its own here (sched(7)), and the calls mean the calling one. sched_setattr(2), for which the C
// library has no function, since filters that forbid real-time priorities (RestrictRealtime= of a unit) forbid the older call
// together with its flag.
#include <linux/sched.h>
#include <linux/sched/types.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/dispatch/thread_priority.h"

namespace keel {

std::error_code preferThisThread() {
  if (::getpriority(PRIO_PROCESS, 0) != 0) return {};
  ::sched_attr attributes{};
  attributes.size = sizeof attributes;
  attributes.sched_policy = SCHED_NORMAL;
  attributes.sched_flags = SCHED_FLAG_RESET_ON_FORK;
  attributes.sched_nice = -kPreferredSteps;
  if (::syscall(SYS_sched_setattr, 0, &attributes, 0) == 0) return {};
  return {errno, std::system_category()};
}

}  // namespace keel
