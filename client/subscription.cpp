// SPDX-License-Identifier: Apache-2.0
#include "client/subscription.h"

#include <utility>

#include "client/client_core.h"

namespace keel {

Subscription& Subscription::operator=(Subscription&& other) noexcept {
  if (this != &other) {
    cancel();
    record_ = std::move(other.record_);
  }
  return *this;
}

String Subscription::name() const {
  return record_ ? record_->name : String();
}

Subscription::State Subscription::state() const {
  return record_ ? record_->state.load() : State::ended;
}

void Subscription::cancel() {
  auto record = std::exchange(record_, nullptr);
  if (!record) return;
  if (const auto core = record->core.lock()) core->cancel(std::move(record));
}

}  // namespace keel
