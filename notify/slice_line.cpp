// SPDX-License-Identifier: Apache-2.0
#include "notify/slice_line.h"

#include <utility>

#include "runtime/dispatch/serial_queue.h"

namespace keel {

SliceLine::SliceLine(std::shared_ptr<SerialQueue> inputQueue)
    : inputQueue_(std::move(inputQueue)) {}

void SliceLine::add(Slice slice) {
  waiting_.push_back(std::move(slice));
  queueNext();
}

void SliceLine::queueNext() {
  if (waiting_.empty() || std::exchange(isQueued_, true)) return;
  inputQueue_->async([line = shared_from_this()] {
    line->isQueued_ = false;
    line->runNext();
  });
}

void SliceLine::runNext() {
  Slice slice = std::move(waiting_.front());
  waiting_.pop_front();
  if (slice()) waiting_.push_back(std::move(slice));
  queueNext();
}

}  // namespace keel
