// SPDX-License-Identifier: Apache-2.0
#include "notify/subscription_object.h"

#include "notify/published_object.h"
#include "platform/product/product.h"
#include "protocols/delivery.h"
#include "runtime/dispatch/block_clock.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("notification");

// On the input queue only.
std::uint64_t changeCountOfOwners = 0;

}  // namespace

std::shared_ptr<KLNSubscriptionObject> KLNSubscriptionObject::init() {
  return initWithName(nullptr, nullptr);
}

std::shared_ptr<KLNSubscriptionObject> KLNSubscriptionObject::initWithName(
    Name name, const std::shared_ptr<xpc::Connection>& andConnection) {
  if (name.isNull()) {
    log.error("KLNSubscriptionObject: subscription name may not be nil");
    return nullptr;
  }
  return std::make_shared<KLNSubscriptionObject>(Making(), std::move(name), andConnection);
}

void KLNSubscriptionObject::updateWithData(const Dictionary& data) {
  Delivery delivery(name_, {&data, 1});
  deliver(delivery);
}

void KLNSubscriptionObject::updateWithError(Error error) {
  Delivery delivery(name_, error);
  deliver(delivery);
}

void KLNSubscriptionObject::deliver(Delivery& delivery) {
  if (delivery.error()) {
    deliverError(delivery);
  } else {
    deliverData(delivery);
  }
}

void KLNSubscriptionObject::deliverData(Delivery& delivery) {
  log.debug("updateWithData: {}", name_);
  if (delegate_) return delegate_->deliver(delivery);
  const auto connection = owner();
  if (!connection) {
    if (isCleanedUp()) return;
    // One error per update.
    for (std::size_t i = 0; i < delivery.batch().size(); ++i)
      log.error("updateWithData: connection is nil");
    return;
  }
  delivery.sendTo(*connection, name_, [this] {
    return [subscription = shared_from_this()](const Error& error) {
      log.error("updateWithData: ({}) connection returned an error {}", subscription->name(),
                error);
    };
  });
  lastUpdated_ = BlockClock::now();
}

void KLNSubscriptionObject::deliverError(Delivery& delivery) {
  log.debug("updateWithError: {}", name_);
  if (delegate_) return delegate_->deliver(delivery);
  const Error& error = delivery.error();
  if (error.code() == errPublisherDisconnected) {
    return log.debug("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected({})",
                     error.code());
  }
  const auto connection = owner();
  if (!connection && isCleanedUp()) return;
  if (!connection) return log.error("updateWithError: connection is nil");
  delivery.sendTo(*connection, name_, [this, &error] {
    return [subscription = shared_from_this(), sent = error](const Error& sendError) {
      log.error("updateWithError: ({}) connection returned an error {} when sending error {}",
                subscription->name(), sendError, sent);
    };
  });
  lastUpdated_ = BlockClock::now();
}

void KLNSubscriptionObject::connectionIsInvalid() {
  if (const auto delegate = delegate_) return delegate->connectionIsInvalid();
  log.debug("connectionIsInvalid: unsubscribing from {}", name_);
  const auto item = target();
  if (!item) return;
  const auto self = shared_from_this();
  item->removeSubscriber(self);
  setTarget(nullptr);
}

void KLNSubscriptionObject::setOwner(const std::shared_ptr<xpc::Connection>& owner) {
  if (sameObject(owner_, owner)) return;
  if (const auto item = target()) item->willChange();
  owner_ = owner;
  borrowedOwner_ = owner.get();
  ++changeCountOfOwners;
}

std::uint64_t KLNSubscriptionObject::ownerChangeCount() {
  return changeCountOfOwners;
}

}  // namespace keel
