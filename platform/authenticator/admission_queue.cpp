// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/admission_queue.h"

#include <utility>

namespace keel {

AdmissionQueue::Admission AdmissionQueue::admit() {
  std::unique_lock lock(mutex_);
  const std::uint64_t ticket = nextTicket_++;
  released_.wait(lock, [&] { return ticket == nextToAdmit_ && admittedCount_ < limit_; });
  ++nextToAdmit_;
  ++admittedCount_;
  // The next in the queue may be admissible, too.
  released_.notify_all();
  return Admission(*this);
}

std::size_t AdmissionQueue::waitingCount() const {
  const std::lock_guard lock(mutex_);
  return nextTicket_ - nextToAdmit_;
}

AdmissionQueue::Admission::Admission(Admission&& other) noexcept
    : queue_(std::exchange(other.queue_, nullptr)) {}

AdmissionQueue::Admission::~Admission() {
  if (queue_ == nullptr) return;
  const std::lock_guard lock(queue_->mutex_);
  --queue_->admittedCount_;
  queue_->released_.notify_all();
}

}  // namespace keel
