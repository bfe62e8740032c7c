// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/foreign_descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <memory>
#include <utility>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/dispatch/worker_pool.h"

namespace keel::xpc {

namespace {

// A few threads for each user, so that one descriptor that waits does not hold up the others at
// once, and for no user so many that those of others have to wait.
constexpr std::size_t kClosingThreads = 64;
constexpr std::size_t kClosingThreadsPerUser = 4;

// Never destroyed: exit() runs on one thread while the others go on working.
WorkerPool& closingThreads() {
  static WorkerPool& threads = *new WorkerPool(kClosingThreads, kClosingThreadsPerUser);
  return threads;
}

}  // namespace

bool isMemoryFile(const FileDescriptor& descriptor) {
  return ::fcntl(descriptor.get(), F_GET_SEALS) >= 0;
}

std::error_code startClosing() {
  return closingThreads().start();
}

void closeInBackground(FileDescriptor descriptor, std::shared_ptr<void> admission,
                       const void* owner) {
  // What waits in a network socket that lingers is worth nothing to us. Other kinds of descriptors
  // do not understand this.
  const linger atOnce{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(descriptor.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
  // A queue for each: they need not wait for each other.
  Executor& lane = closingThreads().laneOf(reinterpret_cast<std::uintptr_t>(owner));
  SerialQueue::create("KeelClosing", lane)
      ->async([closing = std::move(descriptor), held = std::move(admission)]() mutable {
        closing.reset();
        held.reset();
      });
}

}  // namespace keel::xpc
