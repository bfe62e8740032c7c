// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "runtime/dispatch/block.h"
#include "runtime/dispatch/block_batch.h"
#include "runtime/dispatch/executor.h"

namespace keel {

// Runs blocks one at a time, in the order in which they were submitted, in turns on its executor.
// Nobody ever waits on it. A turn runs the blocks that were waiting when it began; what these
// submit runs in the next turn, so a queue that feeds itself starves nobody.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  // The executor is borrowed and outlives the queue.
  static std::shared_ptr<SerialQueue> create(std::string label, Executor& executor);

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  // Destroys the blocks that wait, without running them.
  ~SerialQueue();

  const std::string& label() const { return label_; }

  // Submits `block`. From any thread, also from a block of this queue, and from the destruction of
  // one. Returns its number: as long as lastNumber() is the same, nothing was submitted behind it.
  std::uint64_t async(Block&& block) { return submit(std::move(block), executor_); }
  // The same, but that block alone runs on `elsewhere`, borrowed as the queue's own executor is: it
  // may have to wait where those before and behind it may not. It waits for its turn like any
  // other, and those behind wait for it.
  void asyncOn(Executor& elsewhere, Block&& block) { submit(std::move(block), elsewhere); }

  std::uint64_t lastNumber() const { return lastNumber_.load(std::memory_order_relaxed); }

  // True in a block of this queue, on the thread that runs it, and while that block is being
  // destroyed after it ran.
  bool isCurrent() const;

  // For executors only: runs one turn. The caller holds a reference to the queue until it returns.
  void runTurn() noexcept;
  // For executors only: instead of a turn that will not be run, since the executor ends. Destroys
  // the blocks that wait, which may hold the queue itself, and from now on every block that is
  // submitted.
  void abandon() noexcept;

 private:
  enum class State : std::uint8_t {
    idle,       // nothing waits
    scheduled,  // a turn is scheduled or running
    abandoned,  // nothing is run any more
  };

  // Blocks that are run in one turn.
  struct Stretch {
    Executor* executor;
    BlockBatch blocks;
  };

  SerialQueue(std::string label, Executor& executor)
      : label_(std::move(label)), executor_(executor), waitingOn_(&executor) {}
  std::uint64_t submit(Block&& block, Executor& executor);
  void add(Block&& block, Executor& executor);  // under mutex_

  const std::string label_;
  Executor& executor_;
  std::mutex mutex_;
  State state_ = State::idle;                 // under mutex_
  std::atomic<std::uint64_t> lastNumber_{0};  // changed under mutex_
  BlockBatch waiting_;                        // for the next turn; under mutex_
  Executor* waitingOn_;                       // where that is run; under mutex_
  std::list<Stretch> later_;  // for the turns behind it, empty as long as all is for the same
                              // executor; under mutex_
  BlockBatch running_;        // touched by the running turn alone
};

}  // namespace keel
