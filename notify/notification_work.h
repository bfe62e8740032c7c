// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace keel {

class DumpCoordinator;
class Executor;
class IncrementalWorkQueue;
class SerialQueue;
class UpdateCoalescer;

// The queues of one registry. Owned by the registry and borrowed by its handlers. Lives on the
// notification input queue.
class NotificationWork {
 public:
  // `executor` is borrowed.
  explicit NotificationWork(Executor& executor);
  ~NotificationWork();
  NotificationWork(const NotificationWork&) = delete;
  NotificationWork& operator=(const NotificationWork&) = delete;

  const std::shared_ptr<SerialQueue>& inputQueue() const { return inputQueue_; }
  const std::shared_ptr<SerialQueue>& updateQueue() const { return updateQueue_; }
  UpdateCoalescer& coalescer() { return *coalescer_; }
  IncrementalWorkQueue& incremental() { return *incremental_; }
  DumpCoordinator& dumps() { return *dumps_; }

 private:
  const std::shared_ptr<SerialQueue> inputQueue_;
  const std::shared_ptr<SerialQueue> updateQueue_;
  const std::shared_ptr<IncrementalWorkQueue> incremental_;
  const std::shared_ptr<DumpCoordinator> dumps_;
  const std::shared_ptr<UpdateCoalescer> coalescer_;
};

}  // namespace keel
