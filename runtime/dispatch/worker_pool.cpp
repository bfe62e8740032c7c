// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/worker_pool.h"

#include <pthread.h>

#include <system_error>
#include <utility>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/crash_stack.h"

namespace keel {

WorkerPool::WorkerPool(std::size_t threadLimit, std::size_t threadLimitPerLane)
    : threadLimit_(threadLimit), threadLimitPerLane_(threadLimitPerLane) {
  KEEL_CHECK(threadLimit > 0 && threadLimitPerLane > 0);
}

WorkerPool::~WorkerPool() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    threads.swap(threads_);
  }
  readied_.notify_all();
  for (std::thread& thread : threads) thread.join();
  // No lock: no thread is left. The destruction of a block may schedule further queues, in any
  // lane.
  while (!ready_.empty()) {
    Lane& lane = *ready_.front();
    ready_.pop_front();
    lane.isReady = false;
    while (!lane.scheduled.empty()) takeFrom(lane)->abandon();
  }
}

std::error_code WorkerPool::start() {
  const std::lock_guard lock(mutex_);
  return threads_.empty() ? startThread() : std::error_code();
}

Executor& WorkerPool::laneOf(std::uint64_t owner) {
  const std::lock_guard lock(mutex_);
  auto& lane = lanes_[owner];
  if (!lane) lane = std::make_unique<Lane>(*this);
  return *lane;
}

void WorkerPool::schedule(std::shared_ptr<SerialQueue> queue, Lane& lane) {
  {
    const std::lock_guard lock(mutex_);
    lane.scheduled.push_back(std::move(queue));
    ++scheduledCount_;
    if (!makeReady(lane)) return;
    if (scheduledCount_ > idleCount_) startThread();
  }
  readied_.notify_one();
}

// Returns true if work of the lane may begin now.
bool WorkerPool::makeReady(Lane& lane) {
  if (lane.scheduled.empty() || lane.runningCount == threadLimitPerLane_) return false;
  if (!std::exchange(lane.isReady, true)) ready_.push_back(&lane);
  return true;
}

std::shared_ptr<SerialQueue> WorkerPool::takeFrom(Lane& lane) {
  auto queue = std::move(lane.scheduled.front());
  lane.scheduled.pop_front();
  --scheduledCount_;
  return queue;
}

std::error_code WorkerPool::startThread() {
  if (ending_ || threads_.size() == threadLimit_) return {};
  try {
    threads_.emplace_back([this] { work(); });
  } catch (const std::system_error& problem) {
    return problem.code();
  }
  return {};
}

void WorkerPool::work() {
  pthread_setname_np(pthread_self(), "keel-worker");
  const CrashStack crashStack;
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idleCount_;
    readied_.wait(lock, [this] { return ending_ || !ready_.empty(); });
    --idleCount_;
    if (ending_) return;
    Lane& lane = *ready_.front();
    ready_.pop_front();
    lane.isReady = false;
    auto queue = takeFrom(lane);
    ++lane.runningCount;
    // Goes behind the other lanes.
    makeReady(lane);
    lock.unlock();
    queue->runBatch();
    // Released before the lock is taken: blocks may be destroyed with it, and their destruction may
    // schedule.
    queue.reset();
    lock.lock();
    --lane.runningCount;
    makeReady(lane);
  }
}

}  // namespace keel
