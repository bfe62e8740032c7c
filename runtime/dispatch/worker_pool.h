// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "runtime/dispatch/executor.h"

namespace keel {

// A bounded number of threads for work that may block. Threads start as work arrives, up to the
// bound, and end when they have been idle. If the system has no more, the existing ones do the
// work.
//
// Work may be split into lanes, one per owner whose work must not hold up that of others: lanes
// with work are served round-robin, and one lane occupies no more than a bounded number of threads.
class WorkerPool final : public Executor {
 public:
  explicit WorkerPool(std::size_t threadLimit) : WorkerPool(threadLimit, threadLimit) {}
  // A thread ends once it was idle for `idleTime`, except the last one.
  WorkerPool(std::size_t threadLimit, std::size_t threadLimitPerLane,
             std::chrono::milliseconds idleTime = kIdleTime);
  static constexpr std::chrono::milliseconds kIdleTime{2000};
  // Waits for running batches, drops those not begun, joins the threads.
  ~WorkerPool() override;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Starts the first thread, unless there is one, or returns why it cannot. A pool that has none
  // leaves work undone until it can start one for work that comes later, so whoever depends on its
  // work calls this first.
  std::error_code start();
  std::size_t threadCount();

  // Schedules in a lane shared by all that is scheduled here, which may occupy all threads.
  void schedule(std::shared_ptr<SerialQueue> queue) override { common_.schedule(std::move(queue)); }

  // Returns the lane of that owner, created on the first call and kept as long as the pool. From
  // any thread.
  Executor& laneOf(std::uint64_t owner);

 private:
  class Lane final : public Executor {
   public:
    explicit Lane(WorkerPool& pool) : pool_(pool) {}
    void schedule(std::shared_ptr<SerialQueue> queue) override {
      pool_.schedule(std::move(queue), *this);
    }

    // All under the pool's mutex.
    std::deque<std::shared_ptr<SerialQueue>> scheduled;
    std::size_t runningCount = 0;
    bool isReady = false;  // in ready_

   private:
    WorkerPool& pool_;
  };

  void schedule(std::shared_ptr<SerialQueue> queue, Lane& lane);
  void work();
  // Under mutex_.
  bool makeReady(Lane& lane);
  std::shared_ptr<SerialQueue> takeFrom(Lane& lane);
  std::error_code startThread();
  // Returns false if the calling thread was idle for too long and has to end.
  bool awaitWork(std::unique_lock<std::mutex>& lock);

  const std::size_t threadLimit_;
  const std::size_t threadLimitPerLane_;
  const std::chrono::milliseconds idleTime_;
  std::mutex mutex_;
  std::condition_variable readied_;
  Lane common_{*this};
  std::unordered_map<std::uint64_t, std::unique_ptr<Lane>> lanes_;  // under mutex_
  std::deque<Lane*> ready_;           // lanes with work that may begin, round-robin; under mutex_
  std::vector<std::thread> threads_;  // under mutex_
  std::size_t scheduledCount_ = 0;    // in all lanes; under mutex_
  std::size_t idleCount_ = 0;         // under mutex_
  bool ending_ = false;               // under mutex_
};

}  // namespace keel
