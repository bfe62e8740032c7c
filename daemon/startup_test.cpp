// SPDX-License-Identifier: Apache-2.0
#include "daemon/startup.h"

#include <gtest/gtest.h>

#include <future>

#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/system.h"
#include "runtime/foundation/crash_stack.h"
#include "tests/support/log_recorder.h"

// Exits, and whatever needs root, are tested end to end.

namespace keel {
namespace {

TEST(Startup, KernelWithoutAuditSessionsIsLogged) {
  testing::LogRecorder log{LogLevel::debug};
  warnIfNoAuditSessions("/proc/self/status");
  EXPECT_TRUE(log.lines().empty());
  warnIfNoAuditSessions("/proc/self/nothing-of-that-name");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, LogLevel::error);
  EXPECT_TRUE(log.lines()[0].text.starts_with("this kernel has no audit sessions: "))
      << log.lines()[0].text;
}

TEST(Startup, IoThreadHasACrashStack) {
  startThreads();
  std::promise<bool> told;
  ioReactor().post([&told] { told.set_value(CrashStack::isInUse()); });
  EXPECT_TRUE(told.get_future().get());
}

}  // namespace
}  // namespace keel
