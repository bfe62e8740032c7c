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

// An update of a followed name: new data, or an error.
struct Event {
  String name;
  // The encoded data, shared; null if the item has none, or with an error.
  Dictionary item;
  Error error;

  // Decodes the data: a map, or a null value.
  Value data() const { return item.value(); }
};

// Called on the library's thread, one event at a time.
using EventCallback = std::move_only_function<void(const Event&)>;

// A subscription of a client. Its callback receives the current data when the subscription is made,
// and again after a reconnection, then every new version. The callback is not called when the
// publisher disconnects. The subscription stays for the name's next publisher.
//
// Destroying it unsubscribes. Once the destructor has returned, the callback is not running and
// will not run again, unless the callback itself destroys it. The destructor waits for a running
// callback of the same client, so do not hold a lock that callbacks take. It may outlive its
// client.
class Subscription {
 public:
  enum class State : std::uint8_t {
    active,   // the daemon has it
    waiting,  // the connection is lost; restored with the next one
    refused,  // the daemon refused to restore it, and the callback received the error; retried with
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

  // Returns null if it follows nothing. Both may be called from any thread.
  String name() const;
  State state() const;

  // Unsubscribes, like the destructor.
  void cancel();

 private:
  std::shared_ptr<SubscriptionRecord> record_;
};

}  // namespace keel
