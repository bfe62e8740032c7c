// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/thread_priority.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace keel {
namespace {

int priorityOfThisThread() {
  return ::getpriority(PRIO_PROCESS, 0);
}

// Returns the priority that raiseThreadPriority() gives a thread here: not every user may raise it,
// and one that was chosen stays.
int expectedPriority() {
  int priority = priorityOfThisThread();
  if (priority != 0) return priority;
  std::thread([&priority] {
    priority = ::setpriority(PRIO_PROCESS, 0, -kPriorityIncrease) == 0 ? -kPriorityIncrease : 0;
  }).join();
  return priority;
}

TEST(RaiseThreadPriority, RaisesTheCallingThreadAlone) {
  const int usual = priorityOfThisThread();
  const int expected = expectedPriority();
  int own = 1;
  int child = 1;
  int program = 1;
  std::thread([&] {
    EXPECT_EQ(!raiseThreadPriority(), expected != 0);
    own = priorityOfThisThread();
    std::thread([&child] { child = priorityOfThisThread(); }).join();
    const pid_t forked = ::fork();
    if (forked == 0) ::_exit(40 + priorityOfThisThread());
    int status = 0;
    ASSERT_EQ(::waitpid(forked, &status, 0), forked);
    program = WEXITSTATUS(status) - 40;
  }).join();
  EXPECT_EQ(own, expected);
  EXPECT_EQ(child, usual);
  EXPECT_EQ(program, usual);
  EXPECT_EQ(priorityOfThisThread(), usual);
}

TEST(RaiseThreadPriority, KeepsAChosenPriority) {
  int own = 0;
  std::thread([&own] {
    ASSERT_EQ(::setpriority(PRIO_PROCESS, 0, 19), 0);
    EXPECT_FALSE(raiseThreadPriority());
    own = priorityOfThisThread();
  }).join();
  EXPECT_EQ(own, 19);
}

}  // namespace
}  // namespace keel
