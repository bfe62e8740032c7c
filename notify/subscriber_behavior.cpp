// SPDX-License-Identifier: Apache-2.0
#include "notify/subscriber_behavior.h"

#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "platform/product/product.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/dispatch/block_date.h"
#include "runtime/logging/logger.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel {

using protocols::SubscriberProxy;

namespace {

Logger& log = _loggerForCategory("notification");

Name nameOf(const KLNSubscriptionObject* subscriber) {
  return subscriber != nullptr ? subscriber->name() : nullptr;
}

// Logs that news could not be sent. Made into a block, which holds the subscription, only when that has happened.
struct SendFailure {
  KLNSubscriptionObject& subscription;

  xpc::Connection::ErrorBlock block() const {
    return [subscriber = subscription.shared_from_this()](const Error& error) {
      log.error("behavior updateWithData: ({}) connection returned an error {}", subscriber->name(), error);
    };
  }
};

}  // namespace

void SubscriberBehavior::addTarget(const std::shared_ptr<KLNSubscriptionObject>& subscription) {
  setSubscriber(subscription);
  if (subscription) subscription->setDelegate(shared_from_this());
}

// Once per subscriber and update: what is not needed to send is left out of the way of it.
void SubscriberBehavior::updateWithData(const Dictionary& data) {
  KLNSubscriptionObject* const subscription = borrowedSubscriber();
  if (log.enabled(LogLevel::debug)) log.debug("updateWithData: {} behavior", nameOf(subscription));
  xpc::Connection* const connection = subscription != nullptr ? subscription->borrowedOwner() : nullptr;
  if (connection == nullptr) return log.error("behavior updateWithData: connection is nil");
  xpc::borrowedProxyOf<SubscriberProxy>(*connection, SendFailure{*subscription})
      .call<&SubscriberProxy::updateSubscriptionFor>(subscription->name(), data, std::uint64_t{0}, nullptr);
  log.debug("updateWithData: {} behavior notification sent", subscription->name());
  subscription->setLastUpdated(dateOfBlock());
}

void SubscriberBehavior::updateWithSeries(std::span<const Dictionary> series) {
  KLNSubscriptionObject* const subscription = borrowedSubscriber();
  xpc::Connection* const connection = subscription != nullptr ? subscription->borrowedOwner() : nullptr;
  if (connection == nullptr || log.enabled(LogLevel::debug)) return protocols::SubscriberBehavior::updateWithSeries(series);
  const std::uint64_t flags = 0;
  const Error none;
  xpc::borrowedProxyOf<SubscriberProxy>(*connection, SendFailure{*subscription})
      .callSeries<&SubscriberProxy::updateSubscriptionFor>(
          series, [&](const Dictionary& data) { return std::tie(subscription->name(), data, flags, none); });
  subscription->setLastUpdated(dateOfBlock());
}

void SubscriberBehavior::updateWithError(Error error) {
  const auto held = subscriber();
  if (log.enabled(LogLevel::debug)) log.debug("SubscriberBehavior:updateWithError: {}", nameOf(held.get()));
  if (error.code() == errPublisherDisconnected) {
    return log.debug("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected({})", error.code());
  }
  const auto connection = held ? held->owner() : nullptr;
  if (!connection) return log.error("behavior updateWithError: connection is nil");
  auto onError = [subscriber = held, sent = error](Error sendError) {
    log.error("behavior updateWithError: ({}) connection returned an error {} when sending error {}", subscriber->name(),
              sendError, sent);
  };
  connection->remoteObjectProxyWithErrorHandler<SubscriberProxy>(std::move(onError))
      .call<&SubscriberProxy::updateSubscriptionFor>(held->name(), nullptr, std::uint64_t{0}, std::move(error));
  held->setLastUpdated(dateOfBlock());
}

void SubscriberBehavior::connectionIsInvalid() {
  const auto held = subscriber();
  if (log.enabled(LogLevel::debug)) log.debug("behavior connectionIsInvalid: unsubscribing from {}", nameOf(held.get()));
  const auto item = held ? held->target() : nullptr;
  if (!item) return;
  item->removeSubscriber(held);
  held->setTarget(nullptr);
}

}  // namespace keel
