// SPDX-License-Identifier: Apache-2.0
#include "notify/notification_service.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "notify/dump_coordinator.h"
#include "notify/publish_behavior.h"
#include "notify/same_object.h"
#include "notify/subscriber_behavior.h"
#include "platform/product/product.h"
#include "runtime/dispatch/current_user.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/dispatch/system.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("notification");

bool refuse(Error* error, int code, Dictionary userInfo = nullptr) {
  if (error != nullptr) *error = Error(KLNErrorDomain, code, std::move(userInfo));
  return false;
}

bool refuseReserved(Error* error, const Name& name) {
  const std::string text = fmt::format("the name {} is reserved for another user", name);
  return refuse(error, errNotOwner,
                Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), text}})));
}

// Neither null nor an owner that is gone owns anything.
bool isOwner(const KLNPublishedObject& item, const std::shared_ptr<xpc::Connection>& connection) {
  return connection && item.owner() == connection;
}

}  // namespace

const std::shared_ptr<KLNNotificationService>& KLNNotificationService::defaultService() {
  if (const auto& overriding = overridingService()) [[unlikely]]
    return overriding;
  // Never destroyed: other threads use it while the process ends.
  static const auto& service =
      *new std::shared_ptr<KLNNotificationService>(std::make_shared<KLNNotificationService>());
  return service;
}

KLNNotificationService::KLNNotificationService() : KLNNotificationService(ioReactor()) {}

KLNNotificationService::KLNNotificationService(Executor& executor)
    : work_(std::make_shared<NotificationWork>(executor)) {}

KLNNotificationService::~KLNNotificationService() = default;

std::shared_ptr<KLNPublishedObject> KLNNotificationService::newPublishedObjectWith(
    Dictionary data, Name name, std::uint64_t flags, std::int64_t value,
    const std::shared_ptr<xpc::Connection>& fromConnection) {
  auto item = KLNPublishedObject::initWithName(std::move(name));
  if (!item) return nullptr;
  const auto behavior = newPublishBehaviorFromFlags(flags, value);
  item->setOwner(fromConnection);
  if (behavior) behavior->addTarget(item);
  item->updateWithData(std::move(data));
  addPublisher(fromConnection);
  return item;
}

std::shared_ptr<KLNPublishBehavior> KLNNotificationService::newPublishBehaviorFromFlags(
    std::uint64_t, std::int64_t) {
  return std::make_shared<KLNPublishBehavior>();
}

bool KLNNotificationService::publish(std::shared_ptr<KLNPublishedObject>& item, Error* error) {
  if (!item) return refuse(error, errRequestFailed);
  if (!mayPublish(item->name(), item->owner())) return refuseReserved(error, item->name());
  const auto placeholder = itemOfName(item->name());
  if (!placeholder) {
    enter(item->name(), item);
    return true;
  }
  if (isPublished(*placeholder)) {
    const std::string text = fmt::format("the key {} has already been published", item->name());
    return refuse(error, errDuplicate,
                  Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), text}})));
  }
  placeholder->setOwner(item->owner());
  if (const auto behavior = std::dynamic_pointer_cast<KLNPublishBehavior>(item->delegate()))
    behavior->addTarget(placeholder);
  const auto made = std::exchange(item, placeholder);
  placeholder->updateWithData(made->data());
  return true;
}

bool KLNNotificationService::publishItem(Dictionary data, Name name, std::uint64_t flags,
                                         std::int64_t value,
                                         const std::shared_ptr<xpc::Connection>& fromConnection,
                                         Error* error) {
  if (!mayPublish(name, fromConnection)) return refuseReserved(error, name);
  const auto placeholder = itemOfName(name);
  if (!placeholder) {
    auto item = newPublishedObjectWith(std::move(data), name, flags, value, fromConnection);
    if (!item) return refuse(error, errRequestFailed);
    enter(name, std::move(item));
    return true;
  }
  log.debug("publishItem: we are publishing to an item ({}) that already has subscribers", name);
  if (isPublished(*placeholder)) {
    log.error("publishItem: someone else has already published {}", name);
    return refuse(error, errDuplicate);
  }
  const auto behavior = newPublishBehaviorFromFlags(flags, value);
  placeholder->setOwner(fromConnection);
  if (behavior) behavior->addTarget(placeholder);
  placeholder->updateWithData(std::move(data));
  return true;
}

bool KLNNotificationService::updatePublishedItem(
    Dictionary data, const Name& name, const std::shared_ptr<xpc::Connection>& fromConnection,
    Error* error) {
  const auto item = itemOfName(name);
  if (!item) return refuse(error, errNotFound);
  if (!isOwner(*item, fromConnection)) return refuse(error, errNotOwner);
  item->updateWithData(std::move(data));
  return true;
}

bool KLNNotificationService::removePublishedItemForName(
    const Name& name, const std::shared_ptr<xpc::Connection>& fromConnection, Error* error) {
  const auto item = itemOfName(name);
  log.debug("removePublishedItemForName {} ", name);
  if (!item) return refuse(error, errNotFound);
  if (!isOwner(*item, fromConnection)) return refuse(error, errNotOwner);
  if (item->remove()) {
    work_->dumps().leave(*item);
    published_.erase(name);
  } else {
    item->setDelegate(nullptr);
  }
  return true;
}

std::shared_ptr<KLNSubscriptionObject> KLNNotificationService::newSubscriptionObjectForName(
    Name name, std::uint64_t flags, std::int64_t value,
    const std::shared_ptr<xpc::Connection>& fromConnection) {
  auto subscription = KLNSubscriptionObject::initWithName(std::move(name), fromConnection);
  if (!subscription) return nullptr;
  const auto behavior = newSubscriberBehaviorFromFlags(flags, value);
  subscription->setOwner(fromConnection);
  if (behavior) behavior->addTarget(subscription);
  return subscription;
}

std::shared_ptr<SubscriberBehavior> KLNNotificationService::newSubscriberBehaviorFromFlags(
    std::uint64_t, std::int64_t) {
  return std::make_shared<SubscriberBehavior>();
}

bool KLNNotificationService::subscribe(const std::shared_ptr<KLNSubscriptionObject>& subscription,
                                       Error* error) {
  if (!subscription) return refuse(error, errRequestFailed);
  const Name& name = subscription->name();
  if (const auto item = itemOfName(name)) {
    if (item->subscriberForConnection(subscription->owner())) {
      log.error("subscribe: already subscribed to {} from this connection", name);
      return refuse(error, errDuplicate);
    }
    follow(subscription, item);
    queueFirstDelivery(subscription, item);
    return true;
  }
  const auto placeholder = KLNPublishedObject::initWithName(name);
  enter(name, placeholder);
  follow(subscription, placeholder);
  return true;
}

bool KLNNotificationService::subscribeTo(const Name& name,
                                         const std::shared_ptr<xpc::Connection>& fromConnection,
                                         std::uint64_t withFlags, Error*) {
  const auto subscription = newSubscriptionObjectForName(name, withFlags, 0, fromConnection);
  if (!subscription) return true;
  if (const auto item = itemOfName(name)) {
    follow(subscription, item);
    queueFirstDelivery(subscription, item);
    return true;
  }
  const auto item = KLNPublishedObject::init();
  enter(name, item);
  follow(subscription, item);
  return true;
}

bool KLNNotificationService::removeSubscriptionForName(
    const Name& name, const std::shared_ptr<xpc::Connection>& fromConnection, Error*) {
  const auto item = itemOfName(name);
  if (!item) return false;
  const auto subscription = item->subscriberForConnection(fromConnection);
  if (!subscription) return false;
  item->removeSubscriber(subscription);
  return true;
}

void KLNNotificationService::addPublisher(const std::shared_ptr<xpc::Connection>&) {}

std::shared_ptr<KLNNotificationService>& KLNNotificationService::overridingService() {
  static auto& service = *new std::shared_ptr<KLNNotificationService>();
  return service;
}

bool KLNNotificationService::mayPublish(const Name& name,
                                        const std::shared_ptr<xpc::Connection>& connection) const {
  if (reservations_.count() == 0 || name.isNull()) return true;
  // The client has disconnected, so its user is unknown.
  if (!connection) return !reservations_.ownerOf(name.view());
  return reservations_.mayPublish(connection->effectiveUserIdentifier(), name.view());
}

std::shared_ptr<KLNPublishedObject> KLNNotificationService::itemOfName(const Name& name) const {
  const auto found = published_.find(name);
  return found == published_.end() ? nullptr : found->second;
}

bool KLNNotificationService::isPublished(KLNPublishedObject& item) {
  const auto isOwner = [&item](const auto& owner) { return item.isOwnedBy(owner); };
  if (item.delegate() && std::ranges::any_of(cleanedUp_, isOwner)) item.connectionIsInvalid();
  return item.delegate() != nullptr;
}

void KLNNotificationService::beginCleanUp(const std::weak_ptr<xpc::Connection>& owner) {
  cleanedUp_.push_back(owner);
}

void KLNNotificationService::endCleanUp(const std::weak_ptr<xpc::Connection>& owner) {
  std::erase_if(cleanedUp_, [&owner](const auto& each) { return sameObject(each, owner); });
}

void KLNNotificationService::enter(const Name& name, std::shared_ptr<KLNPublishedObject> item) {
  work_->dumps().enter(*item);
  published_[name] = std::move(item);
}

void KLNNotificationService::follow(const std::shared_ptr<KLNSubscriptionObject>& subscription,
                                    const std::shared_ptr<KLNPublishedObject>& item) {
  item->addSubscriber(subscription);
  subscription->setTarget(item);
}

void KLNNotificationService::queueFirstDelivery(std::shared_ptr<KLNSubscriptionObject> subscription,
                                                std::shared_ptr<KLNPublishedObject> item) {
  inputQ()->async(
      [user = currentUser(), subscription = std::move(subscription), item = std::move(item)] {
        const WorkingFor working(user);
        const Dictionary data = item->data();
        item->willChange();
        subscription->updateWithData(data);
      });
}

KLNNotificationService::Override::Override(std::shared_ptr<KLNNotificationService> service)
    : outer_(std::exchange(overridingService(), std::move(service))) {}

KLNNotificationService::Override::~Override() {
  overridingService() = std::move(outer_);
}

}  // namespace keel
