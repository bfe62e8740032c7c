// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/dispatch/block.h"
#include "platform/dispatch/block_batch.h"
#include "platform/dispatch/executor.h"

namespace keel {

// Runs blocks one at a time, in the order in which they were submitted, in turns on its executor. Nobody ever waits on it.
// A turn runs the blocks that were waiting when it began; what these submit runs in the next turn, so a queue that feeds
// itself starves nobody.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  // The executor is borrowed and outlives the queue.
  static std::shared_ptr<SerialQueue> create(std::string label, Executor& executor);

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  // Destroys the blocks that wait, without running them.
  ~SerialQueue();

  const std::string& label() const { return label_; }

  // Submits `block`. From any thread, also from a block of this queue, and from the destruction of one.
  void async(Block block);

  // True in a block of this queue, on the thread that runs it, and while that block is being destroyed after it ran.
  bool isCurrent() const;

  // For executors only: runs one turn. The caller holds a reference to the queue until it returns.
  void runTurn() noexcept;
  // For executors only: instead of a turn that will not be run, since the executor ends. Destroys the blocks that wait, which
  // may hold the queue itself, and from now on every block that is submitted.
  void abandon() noexcept;

 private:
  enum class State : std::uint8_t {
    idle,       // nothing waits
    scheduled,  // a turn is scheduled or running
    abandoned,  // nothing is run any more
  };

  SerialQueue(std::string label, Executor& executor) : label_(std::move(label)), executor_(executor) {}

  const std::string label_;
  Executor& executor_;
  std::mutex mutex_;
  State state_ = State::idle;  // under mutex_
  BlockBatch waiting_;         // under mutex_
  BlockBatch running_;         // touched by the running turn alone
};

}  // namespace keel
