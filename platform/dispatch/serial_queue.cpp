// SPDX-License-Identifier: Apache-2.0
#include "platform/dispatch/serial_queue.h"

#include <utility>

#include "platform/foundation/check.h"

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

void SerialQueue::async(Block block) {
  KEEL_CHECK(block);
  {
    const std::lock_guard lock(mutex_);
    // The block is destroyed by the caller's frame, outside the lock: its destruction may come back here.
    if (state_ == State::abandoned) return;
    waiting_.add(std::move(block));
    if (std::exchange(state_, State::scheduled) == State::scheduled) return;
  }
  executor_.schedule(shared_from_this());
}

bool SerialQueue::isCurrent() const {
  return currentQueue == this;
}

void SerialQueue::runTurn() noexcept {
  {
    const std::lock_guard lock(mutex_);
    running_.swap(waiting_);
  }
  // A test's executor may run a turn from within another queue's block.
  const SerialQueue* const outer = std::exchange(currentQueue, this);
  running_.run();
  currentQueue = outer;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::abandoned) return;
    if (waiting_.empty()) {
      // From here on the next turn may run on another thread: running_ is its own.
      state_ = State::idle;
      return;
    }
  }
  executor_.schedule(shared_from_this());
}

void SerialQueue::abandon() noexcept {
  // Destroyed outside the lock, and before the members: the destruction of a block may submit to this queue.
  BlockBatch dropped;
  const std::lock_guard lock(mutex_);
  state_ = State::abandoned;
  dropped.swap(waiting_);
}

}  // namespace keel
