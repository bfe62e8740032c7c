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

// Runs blocks one at a time, in the order of submission, in batches on its executor. Nothing ever
// waits on it. A batch holds the blocks that were pending when it began; what they submit goes into
// the next one, so a queue that feeds itself starves nobody.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  // The executor is borrowed and outlives the queue.
  static std::shared_ptr<SerialQueue> create(std::string label, Executor& executor);

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  // Destroys pending blocks without running them.
  ~SerialQueue();

  const std::string& label() const { return label_; }

  // Submits `block`. From any thread, also from a block of this queue and from the destruction of
  // one. Returns its sequence number: while lastSequenceNumber() stays the same, nothing was
  // submitted after it.
  std::uint64_t async(Block&& block) { return submit(std::move(block), executor_); }
  // Submits a block that runs on another executor, borrowed as the queue's own is: it may block
  // where its neighbours may not. It keeps its place in the order, so later blocks wait for it.
  void asyncOn(Executor& elsewhere, Block&& block) { submit(std::move(block), elsewhere); }

  std::uint64_t lastSequenceNumber() const {
    return lastSequenceNumber_.load(std::memory_order_relaxed);
  }

  // Returns how many blocks were submitted since the last batch began.
  std::uint64_t pendingCount() const {
    return lastSequenceNumber() - lastBegun_.load(std::memory_order_relaxed);
  }

  // Returns true in a block of this queue, on the thread that runs it, and while that block is
  // being destroyed after it ran.
  bool isCurrent() const;

  // For executors only: runs one batch. The caller holds a reference to the queue until it returns.
  void runBatch() noexcept;
  // For executors only: called instead of runBatch() when the executor ends. Destroys the pending
  // blocks, which may hold the queue itself, and from then on every block that is submitted.
  void abandon() noexcept;

 private:
  enum class State : std::uint8_t {
    idle,       // nothing is pending
    scheduled,  // a batch is scheduled or running
    abandoned,  // nothing runs any more
  };

  // Pending blocks of one batch.
  struct Batch {
    Executor* executor;
    BlockBatch blocks;
  };

  SerialQueue(std::string label, Executor& executor)
      : label_(std::move(label)), executor_(executor), pendingExecutor_(&executor) {}
  std::uint64_t submit(Block&& block, Executor& executor);
  void add(Block&& block, Executor& executor);  // under mutex_

  const std::string label_;
  Executor& executor_;
  std::mutex mutex_;
  State state_ = State::idle;                         // under mutex_
  std::atomic<std::uint64_t> lastSequenceNumber_{0};  // changed under mutex_
  std::atomic<std::uint64_t> lastBegun_{0};           // its value when the last batch began
  // The next batch, and where it runs; under mutex_.
  BlockBatch pending_;
  Executor* pendingExecutor_;
  // The batches after it, empty as long as all blocks run on one executor; under mutex_.
  std::list<Batch> later_;
  BlockBatch running_;  // touched by the running batch alone
};

}  // namespace keel
