// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"

namespace keel {
class Delivery;
}

namespace keel::protocols {

// Sends updates of a followed name to its client. Lives on the notification input queue.
class SubscriberBehavior {
 public:
  virtual ~SubscriberBehavior() = default;
  virtual void updateWithData(const Dictionary& data) = 0;
  virtual void updateWithError(Error error) = 0;
  // Sends the updates of a delivery. The default calls the above once for each.
  virtual void deliver(Delivery& delivery);
  // Called when the subscriber's own connection has ended.
  virtual void connectionIsInvalid() = 0;
};

}  // namespace keel::protocols
