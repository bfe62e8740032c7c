// SPDX-License-Identifier: Apache-2.0
#include "notify/subscriber_behavior.h"

#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "platform/product/product.h"
#include "protocols/delivery.h"
#include "runtime/dispatch/block_clock.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("notification");

const Name kNoName;

const Name& nameOf(const KLNSubscriptionObject* subscription) {
  return subscription != nullptr ? subscription->name() : kNoName;
}

}  // namespace

void SubscriberBehavior::addTarget(const std::shared_ptr<KLNSubscriptionObject>& subscription) {
  setSubscriber(subscription);
  if (subscription) subscription->setDelegate(shared_from_this());
}

void SubscriberBehavior::updateWithData(const Dictionary& data) {
  Delivery delivery(nameOf(borrowedSubscriber()), {&data, 1});
  deliverData(delivery);
}

void SubscriberBehavior::updateWithError(Error error) {
  Delivery delivery(nameOf(borrowedSubscriber()), error);
  deliverError(delivery);
}

void SubscriberBehavior::deliver(Delivery& delivery) {
  if (delivery.error()) {
    deliverError(delivery);
  } else {
    deliverData(delivery);
  }
}

// Runs once per subscriber and batch: the hot path.
void SubscriberBehavior::deliverData(Delivery& delivery) {
  KLNSubscriptionObject* const subscription = borrowedSubscriber();
  log.debug("updateWithData: {} behavior", nameOf(subscription));
  xpc::Connection* const connection =
      subscription != nullptr ? subscription->borrowedOwner() : nullptr;
  if (connection == nullptr) {
    if (subscription != nullptr && subscription->isCleanedUp()) return;
    // One error per update.
    for (std::size_t i = 0; i < delivery.batch().size(); ++i)
      log.error("behavior updateWithData: connection is nil");
    return;
  }
  delivery.sendTo(*connection, subscription->name(), [subscription] {
    return [held = subscription->shared_from_this()](const Error& error) {
      log.error("behavior updateWithData: ({}) connection returned an error {}", held->name(),
                error);
    };
  });
  log.debug("updateWithData: {} behavior notification sent", subscription->name());
  subscription->setLastUpdated(BlockClock::now());
}

void SubscriberBehavior::deliverError(Delivery& delivery) {
  KLNSubscriptionObject* const subscription = borrowedSubscriber();
  const Error& error = delivery.error();
  log.debug("SubscriberBehavior:updateWithError: {}", nameOf(subscription));
  if (error.code() == errPublisherDisconnected) {
    return log.debug("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected({})",
                     error.code());
  }
  xpc::Connection* const connection =
      subscription != nullptr ? subscription->borrowedOwner() : nullptr;
  if (connection == nullptr) {
    if (subscription != nullptr && subscription->isCleanedUp()) return;
    return log.error("behavior updateWithError: connection is nil");
  }
  delivery.sendTo(*connection, subscription->name(), [subscription, &error] {
    return [held = subscription->shared_from_this(), sent = error](const Error& sendError) {
      log.error(
          "behavior updateWithError: ({}) connection returned an error {} when sending error {}",
          held->name(), sendError, sent);
    };
  });
  subscription->setLastUpdated(BlockClock::now());
}

void SubscriberBehavior::connectionIsInvalid() {
  const auto held = subscriber();
  if (log.enabled(LogLevel::debug))
    log.debug("behavior connectionIsInvalid: unsubscribing from {}", nameOf(held.get()));
  const auto item = held ? held->target() : nullptr;
  if (!item) return;
  item->removeSubscriber(held);
  held->setTarget(nullptr);
}

}  // namespace keel
