// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace keel {

class SerialQueue;

// Where the turns of serial queues run: the I/O thread (Reactor), the worker pool, or a test's own
// hand (ManualExecutor).
class Executor {
 public:
  virtual ~Executor() = default;

  // Calls queue->runTurn() once, soon, on a thread of this executor; never from within this call.
  // From any thread.
  virtual void schedule(std::shared_ptr<SerialQueue> queue) = 0;
};

}  // namespace keel
