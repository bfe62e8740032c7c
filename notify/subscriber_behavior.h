// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "protocols/subscriber_behavior.h"

namespace keel {

class KLNSubscriptionObject;

// The plain way in which news of a name reaches its client: each as one message to what the client
// exports, sent without waiting. Lives on the notification input queue. Held by its subscription,
// to which it refers weakly.
class SubscriberBehavior final : public protocols::SubscriberBehavior,
                                 public std::enable_shared_from_this<SubscriberBehavior> {
 public:
  // Serves that subscription from now on, as its delegate. Null: serves none.
  void addTarget(const std::shared_ptr<KLNSubscriptionObject>& subscription);

  // As KLNSubscriptionObject says of itself. A subscription that is gone counts as one whose client
  // is gone.
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
  // The same without counting, for as long as the caller holds it.
  KLNSubscriptionObject* borrowedSubscriber() const {
    return subscriber_.expired() ? nullptr : borrowedSubscriber_;
  }

  std::weak_ptr<KLNSubscriptionObject> subscriber_;
  KLNSubscriptionObject* borrowedSubscriber_ = nullptr;
};

}  // namespace keel
