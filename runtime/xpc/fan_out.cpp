// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/fan_out.h"

#include <algorithm>

namespace keel::xpc {

namespace {

thread_local FanOut* innermost = nullptr;

}  // namespace

FanOut::FanOut(std::size_t receiverCount) : outer_(innermost) {
  innermost = receiverCount > 1 ? this : nullptr;
}

FanOut::~FanOut() {
  innermost = outer_;
  for (std::size_t i = 0; i < callCount_; ++i) calls_[i]->forget();
}

FanOut* FanOut::current() {
  return innermost;
}

bool FanOut::keeps(const Call& call) const {
  return std::find(calls_.begin(), calls_.begin() + callCount_, &call) != calls_.begin() + callCount_;
}

bool FanOut::keep(Call& call) {
  if (keeps(call)) return true;
  if (callCount_ == kCalls) return false;
  calls_[callCount_++] = &call;
  return true;
}

}  // namespace keel::xpc
