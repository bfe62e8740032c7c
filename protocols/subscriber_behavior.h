// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"

namespace keel {
class Delivery;
}

namespace keel::protocols {

// How updates of a followed name reach the client that follows it. On the notification input queue.
class SubscriberBehavior {
 public:
  virtual ~SubscriberBehavior() = default;
  virtual void updateWithData(const Dictionary& data) = 0;
  virtual void updateWithError(Error error) = 0;
  // Passes on what an item delivers to all who follow it. Unless overridden, one call of the above
  // for each update in it.
  virtual void deliver(Delivery& delivery);
  // The subscriber's own connection has ended.
  virtual void connectionIsInvalid() = 0;
};

}  // namespace keel::protocols
