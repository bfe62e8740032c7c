// SPDX-License-Identifier: Apache-2.0
#include "notify/publish_behavior.h"

#include <algorithm>
#include <utility>

#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "platform/product/product.h"
#include "runtime/dispatch/block_date.h"
#include "runtime/logging/logger.h"
#include "runtime/xpc/fan_out.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("notification");

constexpr std::size_t kManySubscribers = 100;

// What a message is longer than its name and its data, at most.
constexpr std::size_t kAroundData = 32;

// How many of the first of `series` are to be sent together.
std::size_t countTogether(std::span<const Dictionary> series, const Name& name) {
  std::size_t count = 0;
  std::size_t bytes = 0;
  for (; count < series.size(); ++count) {
    const BufferRef& data = series[count].buffer();
    const std::size_t dataBytes = data ? data->size() : 0;
    bytes += dataBytes + name.view().size() + kAroundData;
    if (dataBytes > xpc::FanOut::kLargestInSeriesBytes || bytes > xpc::FanOut::kSeriesBytes) break;
  }
  return std::max<std::size_t>(count, 1);
}

}  // namespace

void KLNPublishBehavior::addTarget(const std::shared_ptr<KLNPublishedObject>& item) {
  setPublished(item);
  if (item) item->setDelegate(shared_from_this());
}

void KLNPublishBehavior::updateWithData(Dictionary data) {
  const auto item = published();
  if (!item) return;
  deliver(*item, data, [&data](KLNSubscriptionObject& subscription) { subscription.updateWithData(data); });
}

template <class Tell>
void KLNPublishBehavior::deliver(KLNPublishedObject& item, const Dictionary& data, Tell tell) {
  item.setData(data);
  item.setLastUpdated(dateOfBlock());
  if (SubscriberSet* const subscribers = item.subscribers()) {
    const xpc::FanOut fanOut(subscribers->count());
    subscribers->forEach(tell);
    if (subscribers->count() > kManySubscribers) ageDateOfBlock(kBlocksPerDate);
  }
}

// The time goes into waiting for what is known of each subscriber: so one is told of all before the next one is looked at.
void KLNPublishBehavior::updateWithSeries(std::span<const Dictionary> series) {
  // The log tells of one after the other.
  const auto item = log.enabled(LogLevel::debug) ? nullptr : published();
  if (!item) return protocols::PublishBehavior::updateWithSeries(series);
  while (!series.empty()) {
    const std::span<const Dictionary> together = series.first(countTogether(series, item->name()));
    series = series.subspan(together.size());
    ageDateOfBlock(together.size());
    if (together.size() == 1) {
      updateWithData(together.front());
    } else {
      deliver(*item, together.back(),
              [together](KLNSubscriptionObject& subscription) { subscription.updateWithSeries(together); });
    }
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
