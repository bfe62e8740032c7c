// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/worker_pool.h"

#include <pthread.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/crash_stack.h"

namespace keel {

WorkerPool::WorkerPool(std::size_t threadLimit, std::size_t threadLimitPerLane,
                       std::chrono::milliseconds idleTime)
    : threadLimit_(threadLimit), threadLimitPerLane_(threadLimitPerLane), idleTime_(idleTime) {
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
  const std::size_t limit = &lane == &common_ ? threadLimit_ : threadLimitPerLane_;
  if (lane.scheduled.empty() || lane.runningCount >= limit) return false;
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

std::size_t WorkerPool::threadCount() {
  const std::lock_guard lock(mutex_);
  return threads_.size();
}

bool WorkerPool::awaitWork(std::unique_lock<std::mutex>& lock) {
  const auto hasWork = [this] { return ending_ || !ready_.empty(); };
  while (threads_.size() > 1) {
    if (readied_.wait_for(lock, idleTime_, hasWork)) return !ending_;
    if (threads_.size() <= 1) break;
    const auto self = std::ranges::find(threads_, std::this_thread::get_id(), &std::thread::get_id);
    self->detach();
    threads_.erase(self);
    return false;
  }
  readied_.wait(lock, hasWork);
  return !ending_;
}

void WorkerPool::work() {
  pthread_setname_np(pthread_self(), "keel-worker");
  const CrashStack crashStack;
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idleCount_;
    const bool goesOn = awaitWork(lock);
    --idleCount_;
    if (!goesOn) return;
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
