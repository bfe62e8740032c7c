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

// How a published item takes news and passes it on. On the notification input queue.
class PublishBehavior {
 public:
  virtual ~PublishBehavior() = default;
  virtual void updateWithData(Dictionary data) = 0;
  // The same with each of `series`, one after the other and with nothing in between.
  virtual void updateWithSeries(std::span<const Dictionary> series) {
    for (const Dictionary& data : series) updateWithData(data);
  }
  virtual void updateWithError(Error error) = 0;
  // The publisher's connection has ended.
  virtual void connectionIsInvalid() = 0;
  // Whether the item may be dropped: nobody follows it.
  virtual bool remove() = 0;
  virtual void addSubscriber(std::shared_ptr<KLNSubscriptionObject> subscriber) = 0;
  virtual void removeSubscriber(const std::shared_ptr<KLNSubscriptionObject>& subscriber) = 0;
};

}  // namespace keel::protocols
