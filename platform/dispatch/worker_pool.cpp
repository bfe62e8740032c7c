// SPDX-License-Identifier: Apache-2.0
#include "platform/dispatch/worker_pool.h"

#include <pthread.h>

#include <system_error>
#include <utility>

#include "platform/dispatch/serial_queue.h"
#include "platform/foundation/check.h"

namespace keel {

WorkerPool::WorkerPool(std::size_t threadLimit) : threadLimit_(threadLimit) {
  KEEL_CHECK(threadLimit > 0);
}

WorkerPool::~WorkerPool() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    threads.swap(threads_);
  }
  ready_.notify_all();
  for (std::thread& thread : threads) thread.join();
  // No lock: no thread is left. The destruction of a block may schedule further queues.
  while (!scheduled_.empty()) {
    const auto queue = std::move(scheduled_.front());
    scheduled_.pop_front();
    queue->abandon();
  }
}

void WorkerPool::schedule(std::shared_ptr<SerialQueue> queue) {
  {
    const std::lock_guard lock(mutex_);
    scheduled_.push_back(std::move(queue));
    if (scheduled_.size() > idleCount_) startThread();
  }
  ready_.notify_one();
}

void WorkerPool::startThread() {
  if (ending_ || threads_.size() == threadLimit_) return;
  try {
    threads_.emplace_back([this] { work(); });
  } catch (const std::system_error&) {
    // The machine gives no more threads: those that exist do the work, later.
    KEEL_CHECK(!threads_.empty());
  }
}

void WorkerPool::work() {
  pthread_setname_np(pthread_self(), "keel-worker");
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idleCount_;
    ready_.wait(lock, [this] { return ending_ || !scheduled_.empty(); });
    --idleCount_;
    if (ending_) return;
    auto queue = std::move(scheduled_.front());
    scheduled_.pop_front();
    lock.unlock();
    queue->runTurn();
    // Released before the lock is taken: with it may go blocks, whose destruction may schedule.
    queue.reset();
    lock.lock();
  }
}

}  // namespace keel
