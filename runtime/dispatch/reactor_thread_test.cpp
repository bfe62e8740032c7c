// SPDX-License-Identifier: Apache-2.0
// The reactor and other threads: waking up, order, stopping.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/serial_queue.h"

namespace keel {
namespace {

// A reactor on a thread of its own, for the length of a test.
class RunningReactor {
 public:
  RunningReactor() = default;
  RunningReactor(const RunningReactor&) = delete;
  RunningReactor& operator=(const RunningReactor&) = delete;
  ~RunningReactor() {
    reactor.stop();
    thread_.join();
  }

  Reactor reactor;

 private:
  std::thread thread_{[this] { reactor.run(); }};
};

TEST(ReactorThread, IsCurrentOnTheThreadThatRunsIt) {
  Reactor reactor;
  EXPECT_FALSE(reactor.isCurrent());
  reactor.turn(/*wait=*/false);
  EXPECT_TRUE(reactor.isCurrent());
  std::thread([&reactor] { EXPECT_FALSE(reactor.isCurrent()); }).join();
}

TEST(ReactorThread, IsCurrentOnNoThreadAfterRun) {
  Reactor reactor;
  reactor.post([&reactor] {
    EXPECT_TRUE(reactor.isCurrent());
    reactor.stop();
  });
  reactor.run();
  EXPECT_FALSE(reactor.isCurrent());
}

TEST(ReactorThread, RunsNoTurnWhenStoppedBeforehand) {
  Reactor reactor;
  bool ran = false;
  reactor.post([&] {
    ran = true;
    reactor.stop();
  });
  reactor.stop();
  reactor.run();
  EXPECT_FALSE(ran);
  reactor.run();
  EXPECT_TRUE(ran);
}

TEST(ReactorThread, DoesNotWaitOnceStopped) {
  Reactor reactor;
  reactor.stop();
  EXPECT_FALSE(reactor.turn(/*wait=*/true));
}

TEST(ReactorThread, CanBeStoppedFromAnotherThread) {
  Reactor reactor;
  std::binary_semaphore running(0);
  reactor.post([&running] { running.release(); });
  std::thread stopper([&] {
    running.acquire();
    reactor.stop();
  });
  reactor.run();
  stopper.join();
}

// Returns how often any eventfd of this process was written and not read.
std::uint64_t eventfdCount() {
  std::uint64_t sum = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(entry.path());
    for (std::string word; info >> word;) {
      std::uint64_t count = 0;
      if (word == "eventfd-count:" && info >> std::hex >> count) sum += count;
    }
  }
  return sum;
}

TEST(ReactorThread, DoesNotWriteToTheEventfdWhileAwake) {
  Reactor reactor;
  const auto queue = SerialQueue::create("test", reactor);
  const auto submit = [&] {
    reactor.post([] {});
    queue->async([] {});
  };
  const std::uint64_t before = eventfdCount();
  submit();
  reactor.turn(/*wait=*/true);
  submit();
  std::thread(submit).join();
  reactor.turn(/*wait=*/true);
  // A timer ends this wait, after which the thread is awake again.
  bool ran = false;
  reactor.after(std::chrono::milliseconds(1), [&ran] { ran = true; });
  while (!ran) reactor.turn(/*wait=*/true);
  std::thread(submit).join();
  reactor.turn(/*wait=*/true);
  EXPECT_EQ(eventfdCount(), before);
}

TEST(ReactorThread, WaitsAgainAfterItWasWoken) {
  Reactor reactor;
  bool woken = false;
  const std::uint64_t before = eventfdCount();
  std::thread waker([&] {
    while (eventfdCount() == before) reactor.post([] {});
    reactor.post([&woken] { woken = true; });
  });
  while (!woken) reactor.turn(/*wait=*/true);
  waker.join();
  // A turn may still fetch the last wake-up; another may find the timer a hair short of due.
  bool ran = false;
  int turns = 0;
  reactor.after(std::chrono::milliseconds(5), [&ran] { ran = true; });
  while (!ran) {
    reactor.turn(/*wait=*/true);
    ++turns;
  }
  EXPECT_LE(turns, 3);
}

TEST(ReactorThread, IsWokenByEveryPost) {
  RunningReactor running;
  std::binary_semaphore ran(0);
  for (int i = 0; i < 500; ++i) {
    running.reactor.post([&ran] { ran.release(); });
    ran.acquire();
  }
}

TEST(ReactorThread, IsWokenByAQueueFedFromAnotherThread) {
  RunningReactor running;
  const auto queue = SerialQueue::create("test", running.reactor);
  std::binary_semaphore ran(0);
  for (int i = 0; i < 500; ++i) {
    queue->async([&ran] { ran.release(); });
    ran.acquire();
  }
}

TEST(ReactorThread, RunsThePostsOfEachThreadInOrder) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kPosts = 500;
  Reactor reactor;
  // Touched only on the reactor's thread.
  std::array<std::size_t, kThreads> next{};
  bool inOrder = true;
  std::size_t total = 0;
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (std::size_t i = 0; i < kPosts; ++i) {
        reactor.post([&, thread, i] {
          inOrder = inOrder && next[thread]++ == i;
          if (++total == kThreads * kPosts) reactor.stop();
        });
      }
    });
  }
  reactor.run();
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(inOrder);
}

TEST(ReactorThread, AWokenReactorRunsItsHooksAndTimers) {
  class Hook final : public EndOfTurnHook {
   public:
    void onEndOfTurn() override { ran.release(); }
    std::binary_semaphore ran{0};
  };
  Hook hook;
  std::binary_semaphore ran(0);
  RunningReactor running;
  running.reactor.post([&] {
    running.reactor.atEndOfTurn(running.reactor.ownShare(), hook, EndOfTurnHook::Urgency::normal);
    running.reactor.after(std::chrono::milliseconds(1), [&ran] { ran.release(); });
  });
  hook.ran.acquire();
  ran.acquire();
}

}  // namespace
}  // namespace keel
