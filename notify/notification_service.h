// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

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

// The registry: every name that is published or followed. A name has one publisher, and one
// subscription per connection; only the publisher updates or removes it. A name that is followed
// before it is published, or that has lost its publisher, stays as a placeholder with its
// subscribers, which the next publication takes over.
//
// Everything here is confined to the input queue, on which all notification work runs. Nothing
// waits: publications and updates are delivered by appending to output queues. A refusal returns
// false, is written to `error` unless that is null, and changes nothing. Flags and values are for
// the factories of behaviours, which ignore them.
class KLNNotificationService {
 public:
  using PublishedItems = std::unordered_map<Name, std::shared_ptr<KLNPublishedObject>, StringHash>;
  using CountedConnections = std::unordered_map<std::shared_ptr<xpc::Connection>, std::size_t>;
  class Override;

  // The one service of this process, made on the first call, on the I/O thread's executor. From any
  // thread.
  static const std::shared_ptr<KLNNotificationService>& defaultService();

  KLNNotificationService();
  // With its queues on `executor`, which is borrowed and outlives the service.
  explicit KLNNotificationService(Executor& executor);
  virtual ~KLNNotificationService();
  KLNNotificationService(const KLNNotificationService&) = delete;
  KLNNotificationService& operator=(const KLNNotificationService&) = delete;

  // A published item that is not in the table yet. Null for a null name.
  virtual std::shared_ptr<KLNPublishedObject> newPublishedObjectWith(
      Dictionary data, Name name, std::uint64_t flags, std::int64_t value,
      const std::shared_ptr<xpc::Connection>& fromConnection);
  virtual std::shared_ptr<KLNPublishBehavior> newPublishBehaviorFromFlags(std::uint64_t flags,
                                                                          std::int64_t value);
  // Enters `item`. Where a placeholder waits it takes over owner, behaviour and data of `item`, its
  // subscribers receive the data, and `item` becomes the placeholder. Codes 9 (with a description)
  // and 13 (null item).
  bool publish(std::shared_ptr<KLNPublishedObject>& item, Error* error);
  // The same in one step. Codes 9, 13 (no item could be made).
  bool publishItem(Dictionary data, Name name, std::uint64_t flags, std::int64_t value,
                   const std::shared_ptr<xpc::Connection>& fromConnection, Error* error);
  // Codes 10, 11.
  bool updatePublishedItem(Dictionary data, const Name& name,
                           const std::shared_ptr<xpc::Connection>& fromConnection, Error* error);
  // The entry goes, or stays as a placeholder when it is followed. Codes 10, 11.
  bool removePublishedItemForName(const Name& name,
                                  const std::shared_ptr<xpc::Connection>& fromConnection,
                                  Error* error);

  // A subscription with its behaviour that follows no item yet. Null for a null name.
  virtual std::shared_ptr<KLNSubscriptionObject> newSubscriptionObjectForName(
      Name name, std::uint64_t flags, std::int64_t value,
      const std::shared_ptr<xpc::Connection>& fromConnection);
  virtual std::shared_ptr<SubscriberBehavior> newSubscriberBehaviorFromFlags(std::uint64_t flags,
                                                                             std::int64_t value);
  // Attaches `subscription` to the item of its name, and queues the delivery of the item's data,
  // null data included; so they follow what the running block replies. Without an item it makes a
  // placeholder and delivers nothing. Codes 9 (the subscription's owner follows the name already)
  // and 13 (null subscription).
  bool subscribe(const std::shared_ptr<KLNSubscriptionObject>& subscription, Error* error);
  // The same without asking whether the connection follows the name already; and where there is no
  // item, it enters one without a name and without subscribers, so that the subscription is not
  // recorded. Always true, `error` is never written. A null name does nothing.
  bool subscribeTo(const Name& name, const std::shared_ptr<xpc::Connection>& fromConnection,
                   std::uint64_t withFlags, Error* error);
  // False when the connection does not follow the name; `error` is never written. The item stays.
  bool removeSubscriptionForName(const Name& name,
                                 const std::shared_ptr<xpc::Connection>& fromConnection,
                                 Error* error);

  // Does nothing: publishers() stays empty.
  void addPublisher(const std::shared_ptr<xpc::Connection>& connection);

  const std::shared_ptr<SerialQueue>& inputQueue() const { return work_->inputQueue(); }
  const std::shared_ptr<SerialQueue>& inputQ() const { return work_->inputQueue(); }
  // Gets no work.
  const std::shared_ptr<SerialQueue>& updateQ() const { return work_->updateQueue(); }
  NotificationWork& work() const { return *work_; }
  PublishedItems& published() { return published_; }
  const CountedConnections& publishers() const { return publishers_; }
  // The publications of a client that is gone end step by step. Until endCleanUp() all of them
  // count as ended: others may publish their names.
  void beginCleanUp(const std::weak_ptr<xpc::Connection>& owner);
  void endCleanUp(const std::weak_ptr<xpc::Connection>& owner);

 private:
  static std::shared_ptr<KLNNotificationService>& overridingService();

  // Null when there is none.
  std::shared_ptr<KLNPublishedObject> itemOfName(const Name& name) const;
  // Whether somebody publishes it. Ends the publication first if that is about to be done anyhow.
  bool isPublished(KLNPublishedObject& item);
  void enter(const Name& name, std::shared_ptr<KLNPublishedObject> item);
  void follow(const std::shared_ptr<KLNSubscriptionObject>& subscription,
              const std::shared_ptr<KLNPublishedObject>& item);
  void queueFirstDelivery(std::shared_ptr<KLNSubscriptionObject> subscription,
                          std::shared_ptr<KLNPublishedObject> item);

  const std::shared_ptr<NotificationWork> work_;
  PublishedItems published_;
  const CountedConnections publishers_;
  // Owners whose publications are being ended.
  std::vector<std::weak_ptr<xpc::Connection>> cleanedUp_;
};

// For tests: makes `service` the default one until the token is destroyed. Tokens nest.
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
