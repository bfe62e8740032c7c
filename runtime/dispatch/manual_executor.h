// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <deque>
#include <memory>

#include "runtime/dispatch/executor.h"

namespace keel {

// An executor that runs a batch only when it is called to: for tests, which thereby decide the
// order of everything. One thread only.
class ManualExecutor final : public Executor {
 public:
  ManualExecutor() = default;
  // Abandons the queues that did not run.
  ~ManualExecutor() override;
  ManualExecutor(const ManualExecutor&) = delete;
  ManualExecutor& operator=(const ManualExecutor&) = delete;

  void schedule(std::shared_ptr<SerialQueue> queue) override {
    scheduled_.push_back(std::move(queue));
  }

  std::size_t scheduledCount() const { return scheduled_.size(); }
  // Runs the batch that was scheduled first. Returns false when there is none.
  bool runOne();
  // Runs batches until none is scheduled.
  void runAll();

 private:
  std::shared_ptr<SerialQueue> takeFirst();

  std::deque<std::shared_ptr<SerialQueue>> scheduled_;
};

}  // namespace keel
