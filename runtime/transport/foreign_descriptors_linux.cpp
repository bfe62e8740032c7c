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

// A few threads per user, so that one blocking descriptor does not hold up the next; not so many
// that those of other users have to wait.
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

void closeInBackground(FileDescriptor descriptor, Admission admission, const void* owner) {
  // Unsent data of a lingering network socket is worthless here. Other kinds of descriptors ignore
  // this.
  const linger atOnce{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(descriptor.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
  // A queue per descriptor: they need not wait for each other.
  Executor& lane = closingThreads().laneOf(reinterpret_cast<std::uintptr_t>(owner));
  SerialQueue::create("KeelClosing", lane)
      ->async([closing = std::move(descriptor), held = std::move(admission)]() mutable {
        closing.reset();
        held = Admission();
      });
}

}  // namespace keel::xpc
