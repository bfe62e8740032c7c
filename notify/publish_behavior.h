// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <span>

#include "protocols/publish_behavior.h"

namespace keel {

class Delivery;
class KLNPublishedObject;

// Stores and dates the updates of an item and delivers them to every subscriber, in the set's
// order. Lives on the notification input queue. Owned by its item, to which it refers weakly;
// without an item it does nothing.
class KLNPublishBehavior final : public protocols::PublishBehavior,
                                 public std::enable_shared_from_this<KLNPublishBehavior> {
 public:
  // Becomes the delegate of `item`; null detaches it.
  void addTarget(const std::shared_ptr<KLNPublishedObject>& item);

  // Delivers equal data, too.
  void updateWithData(Dictionary data) override;
  void updateWithBatch(std::span<const Dictionary> batch) override;
  // Delivers the error; data and date stay.
  void updateWithError(Error error) override;
  // Delivers errPublisherDisconnected, then detaches itself: the item becomes a placeholder. The
  // caller keeps this behaviour alive.
  void connectionIsInvalid() override;
  // Makes an item with subscribers a placeholder and returns false; nothing is delivered. Leaves
  // any other item as it is and returns true.
  bool remove() override;
  void addSubscriber(std::shared_ptr<KLNSubscriptionObject> subscriber) override;
  void removeSubscriber(const std::shared_ptr<KLNSubscriptionObject>& subscriber) override;

  std::shared_ptr<KLNPublishedObject> published() const { return published_.lock(); }
  void setPublished(const std::shared_ptr<KLNPublishedObject>& published) {
    published_ = published;
  }

 private:
  static void deliver(KLNPublishedObject& item, Delivery& delivery);

  std::weak_ptr<KLNPublishedObject> published_;
};

}  // namespace keel
