// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <span>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"

namespace keel {
class KLNSubscriptionObject;
}

namespace keel::protocols {

// Handles the updates of a published item. Lives on the notification input queue.
class PublishBehavior {
 public:
  virtual ~PublishBehavior() = default;
  virtual void updateWithData(Dictionary data) = 0;
  // Applies `batch`, which is not empty, in order and with nothing in between.
  virtual void updateWithBatch(std::span<const Dictionary> batch) {
    for (const Dictionary& data : batch) updateWithData(data);
  }
  virtual void updateWithError(Error error) = 0;
  // Called when the publisher's connection has ended.
  virtual void connectionIsInvalid() = 0;
  // Returns true if the item may be dropped, since it has no subscribers.
  virtual bool remove() = 0;
  virtual void addSubscriber(std::shared_ptr<KLNSubscriptionObject> subscriber) = 0;
  virtual void removeSubscriber(const std::shared_ptr<KLNSubscriptionObject>& subscriber) = 0;
};

}  // namespace keel::protocols
