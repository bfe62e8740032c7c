// SPDX-License-Identifier: Apache-2.0
#include "notify/publish_behavior.h"

#include <utility>

#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "platform/dispatch/block_date.h"
#include "platform/product/product.h"
#include "platform/xpc/fan_out.h"

namespace keel {

namespace {

constexpr std::size_t kManySubscribers = 100;

}  // namespace

void KLNPublishBehavior::addTarget(const std::shared_ptr<KLNPublishedObject>& item) {
  setPublished(item);
  if (item) item->setDelegate(shared_from_this());
}

void KLNPublishBehavior::updateWithData(Dictionary data) {
  const auto item = published();
  if (!item) return;
  item->setData(data);
  item->setLastUpdated(dateOfBlock());
  if (SubscriberSet* const subscribers = item->subscribers()) {
    const xpc::FanOut fanOut(subscribers->count());
    subscribers->forEach([&data](KLNSubscriptionObject& subscription) { subscription.updateWithData(data); });
    // What took long makes the date old.
    if (subscribers->count() > kManySubscribers) beginDateOfBlock();
  }
}

void KLNPublishBehavior::updateWithError(Error error) {
  const auto item = published();
  if (!item) return;
  item->willChange();
  if (SubscriberSet* const subscribers = item->subscribers()) {
    const xpc::FanOut fanOut(subscribers->count());
    subscribers->forEach([&error](KLNSubscriptionObject& subscription) { subscription.updateWithError(error); });
  }
}

void KLNPublishBehavior::connectionIsInvalid() {
  updateWithError(Error(KLNErrorDomain, errPublisherDisconnected));
  if (const auto item = published()) item->setDelegate(nullptr);
}

bool KLNPublishBehavior::remove() {
  const auto item = published();
  if (!item || item->subscribers() == nullptr || item->subscribers()->empty()) return true;
  item->setDelegate(nullptr);
  return false;
}

void KLNPublishBehavior::addSubscriber(std::shared_ptr<KLNSubscriptionObject> subscriber) {
  const auto item = published();
  if (item && item->subscribers() != nullptr) item->subscribers()->add(std::move(subscriber));
}

void KLNPublishBehavior::removeSubscriber(const std::shared_ptr<KLNSubscriptionObject>& subscriber) {
  const auto item = published();
  if (item && item->subscribers() != nullptr) item->subscribers()->remove(subscriber);
}

}  // namespace keel
