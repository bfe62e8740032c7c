// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/executor.h"

namespace keel {

// A bounded number of threads for work that may block. Threads are started as work arrives, up to the bound, and kept.
class WorkerPool final : public Executor {
 public:
  explicit WorkerPool(std::size_t threadLimit);
  // Lets running turns end, drops those not begun, joins the threads.
  ~WorkerPool() override;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void schedule(std::shared_ptr<SerialQueue> queue) override;

 private:
  void startThread();  // under mutex_
  void work();

  const std::size_t threadLimit_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::shared_ptr<SerialQueue>> scheduled_;  // under mutex_
  std::vector<std::thread> threads_;                    // under mutex_
  std::size_t idleCount_ = 0;                           // under mutex_
  bool ending_ = false;                                 // under mutex_
};

}  // namespace keel
