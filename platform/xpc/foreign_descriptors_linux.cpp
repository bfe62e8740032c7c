// SPDX-License-Identifier: Apache-2.0
#include "platform/xpc/foreign_descriptors.h"

#include <fcntl.h>

#include <memory>
#include <utility>

#include "platform/dispatch/serial_queue.h"
#include "platform/dispatch/worker_pool.h"

namespace keel::xpc {

namespace {

// A few threads, so that one descriptor that waits does not hold up the others at once.
constexpr std::size_t kClosingThreads = 4;

}  // namespace

bool isMemoryFile(const FileDescriptor& descriptor) {
  return ::fcntl(descriptor.get(), F_GET_SEALS) >= 0;
}

void closeElsewhere(FileDescriptor descriptor, std::shared_ptr<void> admission) {
  static WorkerPool& threads = *new WorkerPool(kClosingThreads);
  // A queue for each: they need not wait for each other.
  SerialQueue::create("KeelClosing", threads)->async([closing = std::move(descriptor), held = std::move(admission)]() mutable {
    closing.reset();
    held.reset();
  });
}

}  // namespace keel::xpc
