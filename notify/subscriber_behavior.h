// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "protocols/subscriber_behavior.h"

namespace keel {

class KLNSubscriptionObject;

// Sends the updates of one subscription to its client, without waiting. Lives on the notification
// input queue. Owned by its subscription, to which it refers weakly.
class SubscriberBehavior final : public protocols::SubscriberBehavior,
                                 public std::enable_shared_from_this<SubscriberBehavior> {
 public:
  // Becomes the delegate of `subscription`; null detaches it.
  void addTarget(const std::shared_ptr<KLNSubscriptionObject>& subscription);

  // See KLNSubscriptionObject. A subscription that is gone is treated like a client that is gone.
  void updateWithData(const Dictionary& data) override;
  void updateWithError(Error error) override;
  void deliver(Delivery& delivery) override;
  void connectionIsInvalid() override;

  std::shared_ptr<KLNSubscriptionObject> subscriber() const { return subscriber_.lock(); }
  void setSubscriber(const std::shared_ptr<KLNSubscriptionObject>& subscriber) {
    subscriber_ = subscriber;
    borrowedSubscriber_ = subscriber.get();
  }

 private:
  void deliverData(Delivery& delivery);
  void deliverError(Delivery& delivery);
  // Borrows it, without counting a reference.
  KLNSubscriptionObject* borrowedSubscriber() const {
    return subscriber_.expired() ? nullptr : borrowedSubscriber_;
  }

  std::weak_ptr<KLNSubscriptionObject> subscriber_;
  KLNSubscriptionObject* borrowedSubscriber_ = nullptr;
};

}  // namespace keel
