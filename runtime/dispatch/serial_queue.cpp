// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/serial_queue.h"

#include <utility>

#include "runtime/foundation/check.h"

namespace keel {

namespace {

// The queue whose batch this thread is running.
thread_local const SerialQueue* currentQueue = nullptr;

}  // namespace

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label, Executor& executor) {
  return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label), executor));
}

SerialQueue::~SerialQueue() {
  abandon();
}

std::uint64_t SerialQueue::submit(Block&& block, Executor& executor) {
  KEEL_CHECK(block);
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(mutex_);
    // A rejected block is destroyed by the caller, outside the lock: its destruction may come back
    // here.
    number = lastSequenceNumber_.load(std::memory_order_relaxed) + 1;
    lastSequenceNumber_.store(number, std::memory_order_relaxed);
    if (state_ == State::abandoned) return number;
    add(std::move(block), executor);
    if (std::exchange(state_, State::scheduled) == State::scheduled) return number;
  }
  executor.schedule(shared_from_this());
  return number;
}

void SerialQueue::add(Block&& block, Executor& executor) {
  // A block that runs elsewhere is a batch of its own, so that the other executor can choose after
  // each.
  const bool own = &executor == &executor_;
  if (later_.empty() && (pending_.empty() || (own && pendingExecutor_ == &executor_))) {
    pendingExecutor_ = &executor;
    return pending_.add(std::move(block));
  }
  if (!own || later_.empty() || later_.back().executor != &executor_)
    later_.push_back({&executor, {}});
  later_.back().blocks.add(std::move(block));
}

bool SerialQueue::isCurrent() const {
  return currentQueue == this;
}

void SerialQueue::runBatch() noexcept {
  {
    const std::lock_guard lock(mutex_);
    running_.swap(pending_);
    lastBegun_.store(lastSequenceNumber(), std::memory_order_relaxed);
    if (!later_.empty()) [[unlikely]] {
      pending_.swap(later_.front().blocks);
      pendingExecutor_ = later_.front().executor;
      later_.pop_front();
    }
  }
  // A test's executor may run a batch from within another queue's block.
  const SerialQueue* const outer = std::exchange(currentQueue, this);
  running_.run();
  currentQueue = outer;
  Executor* next = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::abandoned) return;
    if (pending_.empty()) {
      // From here on the next batch may run on another thread: running_ belongs to it.
      state_ = State::idle;
      return;
    }
    next = pendingExecutor_;
  }
  next->schedule(shared_from_this());
}

void SerialQueue::abandon() noexcept {
  // Destroyed outside the lock, and before the members: the destruction of a block may submit to
  // this queue.
  BlockBatch dropped;
  std::list<Batch> droppedLater;
  const std::lock_guard lock(mutex_);
  state_ = State::abandoned;
  dropped.swap(pending_);
  droppedLater.swap(later_);
}

}  // namespace keel
