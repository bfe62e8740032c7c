// SPDX-License-Identifier: Apache-2.0
#include "notify/incremental_work_queue.h"

#include <utility>

#include "runtime/dispatch/current_user.h"
#include "runtime/dispatch/serial_queue.h"

namespace keel {

IncrementalWorkQueue::IncrementalWorkQueue(std::shared_ptr<SerialQueue> inputQueue)
    : inputQueue_(std::move(inputQueue)) {}

void IncrementalWorkQueue::add(Step step) {
  waiting_.push_back([user = currentUser(), own = std::move(step)]() mutable {
    const WorkingFor working(user);
    return own();
  });
  queueNext();
}

void IncrementalWorkQueue::queueNext() {
  if (waiting_.empty() || std::exchange(isQueued_, true)) return;
  inputQueue_->async([self = shared_from_this()] {
    self->isQueued_ = false;
    self->runNext();
  });
}

void IncrementalWorkQueue::runNext() {
  Step step = std::move(waiting_.front());
  waiting_.pop_front();
  if (step()) waiting_.push_back(std::move(step));
  queueNext();
}

}  // namespace keel
