// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "client/subscription.h"

namespace keel {

class ClientCore;

// A subscription's state, shared by the program's Subscription and the core. Used on the I/O thread
// except for the atomic members.
class SubscriptionRecord {
 public:
  SubscriptionRecord(String itsName, std::uint64_t itsOrder, EventCallback itsCallback,
                     std::weak_ptr<ClientCore> itsCore)
      : name(std::move(itsName)),
        order(itsOrder),
        callback(std::move(itsCallback)),
        core(std::move(itsCore)) {}

  const String name;
  const std::uint64_t order;  // among all publications and subscriptions of the client
  EventCallback callback;
  const std::weak_ptr<ClientCore> core;
  std::atomic<Subscription::State> state{Subscription::State::active};
  std::atomic<bool> cancelled{false};  // no further event reaches the program
};

}  // namespace keel
