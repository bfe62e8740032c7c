// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace keel {

class SerialQueue;

// Runs serial queues: the I/O thread (Reactor), the worker pool, or a test step by step
// (ManualExecutor).
class Executor {
 public:
  virtual ~Executor() = default;

  // Calls queue->runBatch() once, soon, on a thread of this executor; never from within this call.
  // From any thread.
  virtual void schedule(std::shared_ptr<SerialQueue> queue) = 0;
};

}  // namespace keel
