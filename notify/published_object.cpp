// SPDX-License-Identifier: Apache-2.0
#include "notify/published_object.h"

#include <utility>

#include "notify/subscription_object.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("notification");

}  // namespace

std::shared_ptr<KLNPublishedObject> KLNPublishedObject::init() {
  return std::shared_ptr<KLNPublishedObject>(new KLNPublishedObject);
}

std::shared_ptr<KLNPublishedObject> KLNPublishedObject::initWithName(Name name) {
  if (name.isNull()) {
    log.error("KLNPublishedItem: item name may not be nil");
    return nullptr;
  }
  auto item = init();
  item->subscribers_.emplace();
  item->name_ = std::move(name);
  return item;
}

KLNPublishedObject::~KLNPublishedObject() {
  if (dumpEntry_.coordinator != nullptr) dumpEntry_.coordinator->leave(*this);
}

std::shared_ptr<KLNSubscriptionObject> KLNPublishedObject::subscriberForConnection(
    const std::shared_ptr<xpc::Connection>& connection) {
  return subscribers_ ? subscribers_->lastOwnedBy(connection) : nullptr;
}

// Each of these keeps the behaviour alive during the call, which may detach it from the item.

void KLNPublishedObject::updateWithData(Dictionary data) {
  updateWithBatch({&data, 1});
}

void KLNPublishedObject::updateWithBatch(std::span<const Dictionary> batch) {
  if (const auto delegate = delegate_) return delegate->updateWithBatch(batch);
  setData(batch.back());
}

void KLNPublishedObject::updateWithError(Error error) {
  if (const auto delegate = delegate_) delegate->updateWithError(std::move(error));
}

void KLNPublishedObject::connectionIsInvalid() {
  if (const auto delegate = delegate_) delegate->connectionIsInvalid();
}

bool KLNPublishedObject::remove() {
  const auto delegate = delegate_;
  return !delegate || delegate->remove();
}

void KLNPublishedObject::addSubscriber(std::shared_ptr<KLNSubscriptionObject> subscriber) {
  willChange();
  if (const auto delegate = delegate_) return delegate->addSubscriber(std::move(subscriber));
  if (subscribers_) subscribers_->add(std::move(subscriber));
}

void KLNPublishedObject::removeSubscriber(
    const std::shared_ptr<KLNSubscriptionObject>& subscriber) {
  willChange();
  if (const auto delegate = delegate_) return delegate->removeSubscriber(subscriber);
  if (subscribers_) subscribers_->remove(subscriber);
}

}  // namespace keel
