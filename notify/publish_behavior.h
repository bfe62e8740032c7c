// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <span>

#include "protocols/publish_behavior.h"

namespace keel {

class Delivery;
class KLNPublishedObject;

// The plain way in which an item takes news: stores, dates and passes them on to every subscriber,
// in the set's order. Lives on the notification input queue. Held by its item, to which it refers
// weakly; without an item it does nothing.
class KLNPublishBehavior final : public protocols::PublishBehavior,
                                 public std::enable_shared_from_this<KLNPublishBehavior> {
 public:
  // Serves that item from now on, as its delegate. Null: serves none.
  void addTarget(const std::shared_ptr<KLNPublishedObject>& item);

  // Equal data are news too.
  void updateWithData(Dictionary data) override;
  void updateWithBatch(std::span<const Dictionary> batch) override;
  // Data and date stay.
  void updateWithError(Error error) override;
  // Sends errPublisherDisconnected, then leaves the item, which becomes a placeholder. Whoever
  // calls holds this behaviour.
  void connectionIsInvalid() override;
  // An item that is followed becomes a placeholder with its data and subscribers, who are not told;
  // any other is left as it is.
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
