// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/attempt_line.h"

#include <utility>

namespace keel {

AttemptLine::Turn AttemptLine::enter() {
  std::unique_lock lock(mutex_);
  const std::uint64_t number = nextNumber_++;
  left_.wait(lock, [&] { return number == nextToGo_ && underWay_ < atOnce_; });
  ++nextToGo_;
  ++underWay_;
  // Whoever is behind may find that there is still room.
  left_.notify_all();
  return Turn(*this);
}

std::size_t AttemptLine::waitingCount() const {
  const std::lock_guard lock(mutex_);
  return nextNumber_ - nextToGo_;
}

AttemptLine::Turn::Turn(Turn&& other) noexcept : line_(std::exchange(other.line_, nullptr)) {}

AttemptLine::Turn::~Turn() {
  if (line_ == nullptr) return;
  const std::lock_guard lock(line_->mutex_);
  --line_->underWay_;
  line_->left_.notify_all();
}

}  // namespace keel
