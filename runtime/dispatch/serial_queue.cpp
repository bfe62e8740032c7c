// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/serial_queue.h"

#include <utility>

#include "runtime/foundation/check.h"

namespace keel {

namespace {

// The queue whose turn this thread is running.
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
    // A block that is not taken is destroyed by the caller, outside the lock: its destruction may
    // come back here.
    number = lastNumber_.load(std::memory_order_relaxed) + 1;
    lastNumber_.store(number, std::memory_order_relaxed);
    if (state_ == State::abandoned) return number;
    add(std::move(block), executor);
    if (std::exchange(state_, State::scheduled) == State::scheduled) return number;
  }
  executor.schedule(shared_from_this());
  return number;
}

void SerialQueue::add(Block&& block, Executor& executor) {
  // Nothing joins a block that runs elsewhere: it has its turn alone, so that the other executor
  // can choose after each.
  const bool own = &executor == &executor_;
  if (later_.empty() && (waiting_.empty() || (own && waitingOn_ == &executor_))) {
    waitingOn_ = &executor;
    return waiting_.add(std::move(block));
  }
  if (!own || later_.empty() || later_.back().executor != &executor_)
    later_.push_back({&executor, {}});
  later_.back().blocks.add(std::move(block));
}

bool SerialQueue::isCurrent() const {
  return currentQueue == this;
}

void SerialQueue::runTurn() noexcept {
  {
    const std::lock_guard lock(mutex_);
    running_.swap(waiting_);
    if (!later_.empty()) [[unlikely]] {
      waiting_.swap(later_.front().blocks);
      waitingOn_ = later_.front().executor;
      later_.pop_front();
    }
  }
  // A test's executor may run a turn from within another queue's block.
  const SerialQueue* const outer = std::exchange(currentQueue, this);
  running_.run();
  currentQueue = outer;
  Executor* next = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::abandoned) return;
    if (waiting_.empty()) {
      // From here on the next turn may run on another thread: running_ is its own.
      state_ = State::idle;
      return;
    }
    next = waitingOn_;
  }
  next->schedule(shared_from_this());
}

void SerialQueue::abandon() noexcept {
  // Destroyed outside the lock, and before the members: the destruction of a block may submit to
  // this queue.
  BlockBatch dropped;
  std::list<Stretch> droppedLater;
  const std::lock_guard lock(mutex_);
  state_ = State::abandoned;
  dropped.swap(waiting_);
  droppedLater.swap(later_);
}

}  // namespace keel
