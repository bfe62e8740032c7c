// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "notify/name_reservations.h"
#include "notify/notification_work.h"
#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/xpc/connection.h"

namespace keel {

class KLNPublishBehavior;
class SubscriberBehavior;

// The registry of all names that are published or followed. A name has one publisher, and one
// subscription per connection; only the publisher updates or removes it. A name that is followed
// before it is published, or that has lost its publisher, is a placeholder with its subscribers,
// which the next publication takes over.
//
// Confined to the input queue, on which all notification work runs. Nothing blocks: publications
// and updates are delivered by appending to output queues. A refusal returns false, writes `error`
// unless that is null, and changes nothing. Flags and values are passed to the factories of
// behaviours, which ignore them.
class KLNNotificationService {
 public:
  using PublishedItems = std::unordered_map<Name, std::shared_ptr<KLNPublishedObject>, StringHash>;
  using CountedConnections = std::unordered_map<std::shared_ptr<xpc::Connection>, std::size_t>;
  class Override;

  // Returns the one service of this process, created by the first call on the I/O thread's
  // executor. From any thread.
  static const std::shared_ptr<KLNNotificationService>& defaultService();

  KLNNotificationService();
  // Its queues run on `executor`, which is borrowed and outlives the service.
  explicit KLNNotificationService(Executor& executor);
  virtual ~KLNNotificationService();
  KLNNotificationService(const KLNNotificationService&) = delete;
  KLNNotificationService& operator=(const KLNNotificationService&) = delete;

  // Creates a published item that is not in the table yet. Returns null for a null name.
  virtual std::shared_ptr<KLNPublishedObject> newPublishedObjectWith(
      Dictionary data, Name name, std::uint64_t flags, std::int64_t value,
      const std::shared_ptr<xpc::Connection>& fromConnection);
  virtual std::shared_ptr<KLNPublishBehavior> newPublishBehaviorFromFlags(std::uint64_t flags,
                                                                          std::int64_t value);
  // Enters `item`. A placeholder of that name takes over owner, behaviour and data of `item`, its
  // subscribers receive the data, and `item` refers to it on return. Codes 9 and 10 (the name is
  // reserved for another user), both with a description, and 13 (null item).
  bool publish(std::shared_ptr<KLNPublishedObject>& item, Error* error);
  // Creates and publishes an item in one step. Codes 9, 10, 13 (no item could be created).
  bool publishItem(Dictionary data, Name name, std::uint64_t flags, std::int64_t value,
                   const std::shared_ptr<xpc::Connection>& fromConnection, Error* error);
  // Codes 10, 11.
  bool updatePublishedItem(Dictionary data, const Name& name,
                           const std::shared_ptr<xpc::Connection>& fromConnection, Error* error);
  // Removes the entry, or makes it a placeholder if it is followed. Codes 10, 11.
  bool removePublishedItemForName(const Name& name,
                                  const std::shared_ptr<xpc::Connection>& fromConnection,
                                  Error* error);

  // Creates a subscription with its behaviour that follows no item yet. Returns null for a null
  // name.
  virtual std::shared_ptr<KLNSubscriptionObject> newSubscriptionObjectForName(
      Name name, std::uint64_t flags, std::int64_t value,
      const std::shared_ptr<xpc::Connection>& fromConnection);
  virtual std::shared_ptr<SubscriberBehavior> newSubscriberBehaviorFromFlags(std::uint64_t flags,
                                                                             std::int64_t value);
  // Attaches `subscription` to the item of its name and queues the delivery of the item's data,
  // null data included, behind the reply of the running block. Without an item it creates a
  // placeholder and delivers nothing. Codes 9 (the subscription's owner follows the name already)
  // and 13 (null subscription).
  bool subscribe(const std::shared_ptr<KLNSubscriptionObject>& subscription, Error* error);
  // Like subscribe(), but does not check for duplicates; without an item it enters one that has
  // neither name nor subscriber set, so the subscription is not recorded. Returns true and never
  // writes `error`. Ignores a null name.
  bool subscribeTo(const Name& name, const std::shared_ptr<xpc::Connection>& fromConnection,
                   std::uint64_t withFlags, Error* error);
  // Returns false if the connection does not follow the name; never writes `error`. The item stays.
  bool removeSubscriptionForName(const Name& name,
                                 const std::shared_ptr<xpc::Connection>& fromConnection,
                                 Error* error);

  // Does nothing: publishers() stays empty.
  void addPublisher(const std::shared_ptr<xpc::Connection>& connection);

  const std::shared_ptr<SerialQueue>& inputQueue() const { return work_->inputQueue(); }
  const std::shared_ptr<SerialQueue>& inputQ() const { return work_->inputQueue(); }
  // Exists but receives no work.
  const std::shared_ptr<SerialQueue>& updateQ() const { return work_->updateQueue(); }
  NotificationWork& work() const { return *work_; }
  // Sets the rules for who may publish which names. Call it before the first client is accepted.
  void setReservations(NameReservations reservations) { reservations_ = std::move(reservations); }
  PublishedItems& published() { return published_; }
  const CountedConnections& publishers() const { return publishers_; }
  // Bracket the clean-up of a client's publications, which takes several steps. In between all of
  // them count as ended: others may publish their names.
  void beginCleanUp(const std::weak_ptr<xpc::Connection>& owner);
  void endCleanUp(const std::weak_ptr<xpc::Connection>& owner);

 private:
  static std::shared_ptr<KLNNotificationService>& overridingService();

  bool mayPublish(const Name& name, const std::shared_ptr<xpc::Connection>& connection) const;
  // Returns null if there is none.
  std::shared_ptr<KLNPublishedObject> itemOfName(const Name& name) const;
  // Returns true if somebody publishes it. First ends a publication whose clean-up is in progress.
  bool isPublished(KLNPublishedObject& item);
  void enter(const Name& name, std::shared_ptr<KLNPublishedObject> item);
  void follow(const std::shared_ptr<KLNSubscriptionObject>& subscription,
              const std::shared_ptr<KLNPublishedObject>& item);
  void queueFirstDelivery(std::shared_ptr<KLNSubscriptionObject> subscription,
                          std::shared_ptr<KLNPublishedObject> item);

  const std::shared_ptr<NotificationWork> work_;
  PublishedItems published_;
  NameReservations reservations_;
  const CountedConnections publishers_;
  // Owners whose clean-up is in progress.
  std::vector<std::weak_ptr<xpc::Connection>> cleanedUp_;
};

// Makes `service` the default one until the token is destroyed, for tests. Tokens nest.
class KLNNotificationService::Override {
 public:
  explicit Override(std::shared_ptr<KLNNotificationService> service);
  ~Override();
  Override(const Override&) = delete;
  Override& operator=(const Override&) = delete;

 private:
  std::shared_ptr<KLNNotificationService> outer_;
};

}  // namespace keel
