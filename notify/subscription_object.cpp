// SPDX-License-Identifier: Apache-2.0
#include "notify/subscription_object.h"

#include "notify/published_object.h"
#include "platform/product/product.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/dispatch/block_date.h"
#include "runtime/logging/logger.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel {

using protocols::SubscriberProxy;

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
  log.debug("updateWithData: {}", name_);
  if (delegate_) return delegate_->updateWithData(data);
  const auto connection = owner();
  if (!connection) return log.error("updateWithData: connection is nil");
  auto onError = [subscription = shared_from_this()](Error error) {
    log.error("updateWithData: ({}) connection returned an error {}", subscription->name(), error);
  };
  connection->remoteObjectProxyWithErrorHandler<SubscriberProxy>(std::move(onError))
      .call<&SubscriberProxy::updateSubscriptionFor>(name_, data, std::uint64_t{0}, nullptr);
  lastUpdated_ = dateOfBlock();
}

void KLNSubscriptionObject::updateWithSeries(std::span<const Dictionary> series) {
  if (!delegate_ || log.enabled(LogLevel::debug)) return protocols::SubscriberBehavior::updateWithSeries(series);
  delegate_->updateWithSeries(series);
}

void KLNSubscriptionObject::updateWithError(Error error) {
  log.debug("updateWithError: {}", name_);
  if (delegate_) return delegate_->updateWithError(std::move(error));
  if (error.code() == errPublisherDisconnected) {
    return log.debug("SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected({})", error.code());
  }
  const auto connection = owner();
  if (!connection) return log.error("updateWithError: connection is nil");
  auto onError = [subscription = shared_from_this(), sent = error](Error sendError) {
    log.error("updateWithError: ({}) connection returned an error {} when sending error {}", subscription->name(), sendError,
              sent);
  };
  connection->remoteObjectProxyWithErrorHandler<SubscriberProxy>(std::move(onError))
      .call<&SubscriberProxy::updateSubscriptionFor>(name_, nullptr, std::uint64_t{0}, std::move(error));
  lastUpdated_ = dateOfBlock();
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
