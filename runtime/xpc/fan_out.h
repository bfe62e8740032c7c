// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>

#include "runtime/wire/limits.h"
#include "runtime/wire/shared_run.h"

namespace keel::xpc {

// A stretch of code that makes the same one-way call to several connections in a row. While one lives on a thread, a call that
// equals the last one of its method is not encoded again, and its bytes are kept once for all who are sent them. They nest.
//
//   const xpc::FanOut fanOut(subscribers.count());
//   for (...) proxy.call<&SubscriberProxy::updateSubscriptionFor>(name, data, ...);
class FanOut {
 public:
  // An encoded call that may be kept.
  class Call {
   public:
    // Lets go of what the call holds.
    virtual void forget() = 0;

   protected:
    ~Call() = default;
  };

  // For fewer than two receivers nothing is kept.
  explicit FanOut(std::size_t receiverCount);
  ~FanOut();
  FanOut(const FanOut&) = delete;
  FanOut& operator=(const FanOut&) = delete;

  // How much of a series (RemoteProxy::callSeries) is encoded together, and how large its values may be.
  static constexpr std::size_t kSeriesBytes = 32u << 10;
  static_assert(kSeriesBytes <= kLongestRunBytes);
  static constexpr std::size_t kLargestInSeriesBytes = limits::kSharedPieceBytes - 1;

  // The innermost of this thread; null where no calls are expected to be equal.
  static FanOut* current();

  bool keeps(const Call& call) const;
  // Keeps `call`, borrowed, to its end. False when it keeps as many as it can.
  bool keep(Call& call);

 private:
  // More than any fan-out here calls.
  static constexpr std::size_t kCalls = 4;

  FanOut* const outer_;
  std::array<Call*, kCalls> calls_;
  std::size_t callCount_ = 0;
};

}  // namespace keel::xpc
