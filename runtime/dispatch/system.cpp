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

// A thread is started when work finds no other free, and an idle one costs a stack that is hardly
// touched.
constexpr std::size_t kWorkerLimit = 32;

// As many slow checks (password, rights, membership) at once as an administrator could plausibly
// want; one user alone cannot have them all, so that the checks of another never wait for those of
// the first to time out.
constexpr std::size_t kCheckLimit = 32;
constexpr std::size_t kCheckLimitOfUser = 12;

Reactor* startIoReactor() {
  auto* const reactor = new Reactor;
  std::thread([reactor] {
    pthread_setname_np(pthread_self(), "keel-io");
    reactor->run();
  }).detach();
  return reactor;
}

}  // namespace

// Neither is ever destroyed: exit() runs on one thread while the others go on working.

Reactor& ioReactor() {
  static Reactor* const reactor = startIoReactor();
  return *reactor;
}

WorkerPool& globalQueue() {
  static WorkerPool* const pool = new WorkerPool(kWorkerLimit);
  return *pool;
}

WorkerPool& checkQueue() {
  static WorkerPool* const pool = new WorkerPool(kCheckLimit, kCheckLimitOfUser);
  return *pool;
}

void dispatchMain() {
  for (;;) pause();
}

}  // namespace keel
