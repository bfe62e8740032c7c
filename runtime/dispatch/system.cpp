// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/system.h"

#include <pthread.h>
#include <unistd.h>

#include <cstddef>
#include <thread>

#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/worker_pool.h"

namespace keel {

namespace {

// Threads start on demand, and an idle one costs a stack that is hardly touched.
constexpr std::size_t kWorkerLimit = 32;
// Quick requests use a thread fully, so more threads for one user would only take processors from
// everybody.
constexpr std::size_t kWorkerLimitPerUser = 2;

// Slow checks (password, rights, membership) at once: as many as an administrator could plausibly
// want. One user cannot occupy all threads, so the checks of another never wait for those of the
// first to time out.
constexpr std::size_t kCheckLimit = 32;
constexpr std::size_t kCheckLimitPerUser = 12;

Reactor* startIoReactor() {
  auto* const reactor = new Reactor;
  std::thread([reactor] {
    pthread_setname_np(pthread_self(), "keel-io");
    reactor->run();
  }).detach();
  return reactor;
}

}  // namespace

// None of these is ever destroyed: exit() runs on one thread while the others keep working.

Reactor& ioReactor() {
  static Reactor* const reactor = startIoReactor();
  return *reactor;
}

WorkerPool& globalQueue() {
  static WorkerPool* const pool = new WorkerPool(kWorkerLimit, kWorkerLimitPerUser);
  return *pool;
}

WorkerPool& checkQueue() {
  static WorkerPool* const pool = new WorkerPool(kCheckLimit, kCheckLimitPerUser);
  return *pool;
}

void dispatchMain() {
  for (;;) pause();
}

}  // namespace keel
