// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <functional>
#include <memory>

namespace keel {

class SerialQueue;

// Runs the registry's long work in steps, between which other requests run: one block of the input
// queue runs one step, round-robin over the pieces of work. Owned by NotificationWork and by the
// block it has queued. Lives on the notification input queue.
class IncrementalWorkQueue : public std::enable_shared_from_this<IncrementalWorkQueue> {
 public:
  // Runs one step, of about 0.1 ms, and returns true while work remains. The reactor runs up to 16
  // rounds of blocks before it polls the sockets again; in a quantum, up to 2 before it reads the
  // clock (FairShare).
  using Step = std::move_only_function<bool()>;

  explicit IncrementalWorkQueue(std::shared_ptr<SerialQueue> inputQueue);

  // Queues the first step behind the blocks already queued.
  void add(Step step);

 private:
  void queueNext();
  void runNext();

  const std::shared_ptr<SerialQueue> inputQueue_;
  std::deque<Step> waiting_;
  bool isQueued_ = false;
};

}  // namespace keel
