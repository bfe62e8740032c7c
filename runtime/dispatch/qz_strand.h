// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/dispatch/serial_queue.h"

namespace keel {

// A serial execution context to derive from: its blocks run one at a time, in the order of
// submission.
class QZStrand {
 public:
  // A strand of its own on the I/O thread's executor (system.h).
  QZStrand();
  // On `executor`, which is borrowed and outlives the strand.
  explicit QZStrand(Executor& executor);
  QZStrand(const QZStrand&) = delete;
  QZStrand& operator=(const QZStrand&) = delete;
  virtual ~QZStrand() = default;

  // Submits `block` and returns immediately. The block must hold strongly what it uses, the
  // strand's owner included.
  void continueWithBlock(Block block) { queue_->async(std::move(block)); }

 private:
  std::shared_ptr<SerialQueue> queue_;
};

}  // namespace keel
