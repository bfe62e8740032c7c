// SPDX-License-Identifier: Apache-2.0
#include "platform/xpc/foreign_descriptors.h"

#include <fcntl.h>

#include <atomic>
#include <memory>

#include "platform/dispatch/serial_queue.h"
#include "platform/dispatch/worker_pool.h"
#include "platform/xpc/limits.h"

namespace keel::xpc {

namespace {

std::atomic<std::size_t> waitingCount{0};

SerialQueue& closingQueue() {
  static WorkerPool& thread = *new WorkerPool(1);
  static const auto& queue = *new std::shared_ptr<SerialQueue>(SerialQueue::create("KeelClosing", thread));
  return *queue;
}

}  // namespace

bool isMemoryFile(const FileDescriptor& descriptor) { return ::fcntl(descriptor.get(), F_GET_SEALS) >= 0; }

void closeElsewhere(FileDescriptor descriptor) {
  ++waitingCount;
  closingQueue().async([closing = std::move(descriptor)]() mutable {
    closing.reset();
    --waitingCount;
  });
}

bool mayReceiveDescriptors() { return waitingCount < limits::kForeignDescriptors; }

}  // namespace keel::xpc
