// SPDX-License-Identifier: Apache-2.0
#include "notify/publish_behavior.h"

#include <utility>

#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "platform/product/product.h"
#include "protocols/delivery.h"
#include "runtime/dispatch/block_clock.h"

namespace keel {

namespace {

// Serving more subscribers than this takes as long as the blocks that share a date.
constexpr std::size_t kManySubscribers = 100;

}  // namespace

void KLNPublishBehavior::addTarget(const std::shared_ptr<KLNPublishedObject>& item) {
  setPublished(item);
  if (item) item->setDelegate(shared_from_this());
}

void KLNPublishBehavior::updateWithData(Dictionary data) {
  updateWithBatch({&data, 1});
}

void KLNPublishBehavior::updateWithBatch(std::span<const Dictionary> batch) {
  const auto item = published();
  if (!item) return;
  // A batch does the work of that many blocks.
  BlockClock::age(batch.size());
  item->setData(batch.back());
  item->setLastUpdated(BlockClock::now());
  Delivery delivery(item->name(), batch);
  deliver(*item, delivery);
  if (item->subscribers() != nullptr && item->subscribers()->count() > kManySubscribers)
    BlockClock::age(BlockClock::kBlocksPerReading);
}

void KLNPublishBehavior::updateWithError(Error error) {
  const auto item = published();
  if (!item) return;
  item->willChange();
  Delivery delivery(item->name(), error);
  deliver(*item, delivery);
}

void KLNPublishBehavior::deliver(KLNPublishedObject& item, Delivery& delivery) {
  if (SubscriberSet* const subscribers = item.subscribers()) {
    subscribers->forEach(
        [&delivery](KLNSubscriptionObject& subscription) { subscription.deliver(delivery); });
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

void KLNPublishBehavior::removeSubscriber(
    const std::shared_ptr<KLNSubscriptionObject>& subscriber) {
  const auto item = published();
  if (item && item->subscribers() != nullptr) item->subscribers()->remove(subscriber);
}

}  // namespace keel
