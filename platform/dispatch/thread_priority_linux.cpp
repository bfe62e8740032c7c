// SPDX-License-Identifier: Apache-2.0
// Each thread has a priority of its own here (sched(7)), and the calls mean the calling one.
#include <sched.h>
#include <sys/resource.h>

#include "platform/dispatch/thread_priority.h"

namespace keel {

void preferThisThread() {
  if (::getpriority(PRIO_PROCESS, 0) != 0) return;
  const sched_param none{};
  if (::sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &none) != 0) return;
  ::setpriority(PRIO_PROCESS, 0, -kPreferredSteps);
}

}  // namespace keel
