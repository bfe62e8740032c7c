// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/signal_source.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <semaphore>
#include <string>

#include "runtime/dispatch/system.h"
#include "runtime/foundation/crash_stack.h"

namespace keel {
namespace {

sigset_t setOf(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  return set;
}

bool isPending(int signal) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, signal) == 1;
}

// Restores the process's signals at the end.
class SignalSourceTest : public testing::Test {
 protected:
  SignalSourceTest() {
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
    for (const int used : {SIGUSR1, SIGUSR2, SIGRTMIN}) blockSignal(used);
    ::signal(SIGUSR1, SIG_IGN);
    ::signal(SIGUSR2, SIG_IGN);
  }
  ~SignalSourceTest() override {
    for (const int used : {SIGUSR1, SIGUSR2, SIGRTMIN}) {
      const sigset_t set = setOf(used);
      const timespec now{};
      while (sigtimedwait(&set, nullptr, &now) > 0) {
      }
      ::signal(used, SIG_DFL);
    }
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  }

 private:
  sigset_t mask_;
};

TEST_F(SignalSourceTest, ReceivesASignalWhoseDispositionIsToBeIgnored) {
  std::binary_semaphore received(0);
  const auto source = SignalSource::create(SIGUSR1);
  ASSERT_NE(source, nullptr);
  source->setEventHandler([&received] { received.release(); });
  source->resume();
  kill(getpid(), SIGUSR1);
  received.acquire();
  kill(getpid(), SIGUSR1);
  received.acquire();
}

TEST_F(SignalSourceTest, ReceivesASignalSentBeforeResume) {
  std::binary_semaphore received(0);
  const auto source = SignalSource::create(SIGUSR1);
  ASSERT_NE(source, nullptr);
  kill(getpid(), SIGUSR1);
  source->setEventHandler([&received] { received.release(); });
  source->resume();
  received.acquire();
}

TEST_F(SignalSourceTest, CoalescesSignalsThatArriveBeforeTheHandlerRan) {
  // Real-time signals queue up in the kernel, so here the source itself must coalesce them.
  std::binary_semaphore received(0);
  std::atomic<int> count{0};
  std::atomic<bool> leftOver{false};
  {
    const auto source = SignalSource::create(SIGRTMIN);
    ASSERT_NE(source, nullptr);
    kill(getpid(), SIGRTMIN);
    kill(getpid(), SIGRTMIN);
    source->setEventHandler([&] {
      ++count;
      if (isPending(SIGRTMIN)) leftOver = true;
      received.release();
    });
    source->resume();
    received.acquire();
  }
  EXPECT_EQ(count, 1);
  EXPECT_FALSE(leftOver);
}

TEST_F(SignalSourceTest, ReceivesItsOwnSignalOnly) {
  std::binary_semaphore first(0);
  std::binary_semaphore second(0);
  std::atomic<int> firstCount{0};
  const auto firstSource = SignalSource::create(SIGUSR1);
  const auto secondSource = SignalSource::create(SIGUSR2);
  ASSERT_NE(firstSource, nullptr);
  ASSERT_NE(secondSource, nullptr);
  firstSource->setEventHandler([&] {
    ++firstCount;
    first.release();
  });
  secondSource->setEventHandler([&] { second.release(); });
  firstSource->resume();
  secondSource->resume();
  kill(getpid(), SIGUSR2);
  second.acquire();
  kill(getpid(), SIGUSR1);
  first.acquire();
  EXPECT_EQ(firstCount, 1);
}

TEST_F(SignalSourceTest, RunsItsHandlerOnAThreadOfItsOwn) {
  std::binary_semaphore received(0);
  std::array<char, 16> name{};
  bool hasCrashStack = false;
  const auto source = SignalSource::create(SIGUSR1);
  ASSERT_NE(source, nullptr);
  source->setEventHandler([&] {
    pthread_getname_np(pthread_self(), name.data(), name.size());
    hasCrashStack = CrashStack::isInUse();
    received.release();
  });
  source->resume();
  kill(getpid(), SIGUSR1);
  received.acquire();
  EXPECT_EQ(std::string(name.data()), "keel-signal");
  EXPECT_TRUE(hasCrashStack);
}

TEST_F(SignalSourceTest, CanBeDestroyedWithoutBeingResumed) {
  EXPECT_NE(SignalSource::create(SIGUSR1), nullptr);
}

TEST_F(SignalSourceTest, CreateReturnsNullWithoutDescriptors) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto source = SignalSource::create(SIGUSR1);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(source, nullptr);
}

// As a daemon does: block, ignore, receive, park.
[[noreturn]] void parkUntilTerminated() {
  blockSignal(SIGTERM);
  ::signal(SIGTERM, SIG_IGN);
  const auto source = SignalSource::create(SIGTERM);
  source->setEventHandler([] { std::exit(7); });
  source->resume();
  kill(getpid(), SIGTERM);
  dispatchMain();
}

TEST(SignalSourceDeathTest, ItsHandlerMayEndAProcessWhoseMainThreadIsParked) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(parkUntilTerminated(), testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace keel
