// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

namespace keel {

class SubscriptionRecord;

// News of a followed name: new data, or an error.
struct Event {
  String name;
  // The data in its encoded form, shared; null when the item holds none, or with an error.
  Dictionary item;
  Error error;

  // Decodes: a map, or a null value.
  Value data() const { return item.value(); }
};

// Called on the library's thread, one event at a time.
using EventCallback = std::move_only_function<void(const Event&)>;

// What a client follows. While it lives its callback hears of the name: the data that stands when
// the subscription is made (after a reconnection again), then every new version. A publisher that
// goes away is no event: the name waits for its next one.
//
// Destroying it unsubscribes. When the destructor has returned, the callback is not running and
// runs no more, unless it is that callback which destroys it. The destructor waits for a callback
// of the same client that is just running; so hold no lock which callbacks take. It may outlive its
// client.
class Subscription {
 public:
  enum class State : std::uint8_t {
    active,   // the daemon knows of it
    waiting,  // the connection is gone; made anew with the next one
    refused,  // the daemon refused to make it anew, and the callback was told why; tried again with
              // the next connection
    ended,    // the client was closed
  };

  // Follows nothing; ended.
  Subscription() = default;
  explicit Subscription(std::shared_ptr<SubscriptionRecord> record) : record_(std::move(record)) {}
  Subscription(Subscription&&) noexcept = default;
  Subscription& operator=(Subscription&& other) noexcept;
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;
  ~Subscription() { cancel(); }

  // Null when it follows nothing. Both from any thread.
  String name() const;
  State state() const;

  // What the destructor does.
  void cancel();

 private:
  std::shared_ptr<SubscriptionRecord> record_;
};

}  // namespace keel
