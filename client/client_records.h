// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "client/client.h"
#include "client/gate.h"
#include "client/subscription.h"
#include "runtime/foundation/collections.h"
#include "runtime/xpc/connection.h"

namespace keel {

class ClientCore;

// A publication of the client, restored after a reconnection. On the I/O thread.
struct PublicationRecord {
  String name;
  Dictionary item;
  std::uint64_t flags = 0;
  std::int64_t value = 0;
  std::uint64_t order = 0;  // among all publications and subscriptions of the client
  PublicationState::Kind kind = PublicationState::Kind::published;
  Error error;

  PublicationState state() const { return {name, kind, error}; }
};

// A subscription of the client, shared by the program's Subscription and the core. Used on the I/O
// thread, except for its atomic members.
class SubscriptionRecord {
 public:
  SubscriptionRecord(String itsName, std::uint64_t itsOrder, EventCallback itsCallback,
                     std::weak_ptr<ClientCore> itsCore)
      : name(std::move(itsName)),
        order(itsOrder),
        callback(std::move(itsCallback)),
        core(std::move(itsCore)) {}

  const String name;
  const std::uint64_t order;  // among all publications and subscriptions of the client
  EventCallback callback;
  const std::weak_ptr<ClientCore> core;
  std::atomic<Subscription::State> state{Subscription::State::active};
  std::atomic<bool> cancelled{false};  // no callback runs any more
};

// Records a client's publications and subscriptions, and restores them after a reconnection. Lives
// on the I/O thread, within its client's core. Runs the program's callbacks only through the core's
// gate.
class ClientRecords {
 public:
  explicit ClientRecords(Gate& gate) : gate_(gate) {}

  // Receives the publications that could not be restored. May be null.
  void setPublicationHandler(std::move_only_function<void(const PublicationState&)> handler) {
    publicationHandler_ = std::move(handler);
  }

  void published(PublicationRecord record);
  void updated(const String& name, Dictionary item);
  void removed(const String& name);
  // In the order in which they were published.
  std::vector<PublicationState> publications() const;

  std::shared_ptr<SubscriptionRecord> subscribed(String name, EventCallback callback,
                                                 std::weak_ptr<ClientCore> core);
  void drop(SubscriptionRecord& record);
  void deliver(const String& name, Dictionary item, Error error);

  // Undo a request that was accepted too late. No effect without a connection.
  void revertPublication(const String& name);
  void revertSubscription(const String& name);

  // Restores everything over `connection`, in the original order. `self` is this object; a
  // reference to it keeps the core alive.
  void connected(const std::shared_ptr<ClientRecords>& self,
                 std::shared_ptr<xpc::Connection> connection);
  // Marks everything as waiting for the next connection.
  void disconnected();
  // Drops everything: subscriptions have ended.
  void end();

 private:
  void restorePublication(const std::weak_ptr<ClientRecords>& weak,
                          const PublicationRecord& record);
  void restoreSubscription(const std::weak_ptr<ClientRecords>& weak,
                           const std::shared_ptr<SubscriptionRecord>& record);
  void publicationRestored(std::uint64_t order, const String& name, Error error);
  void subscriptionRestored(const std::shared_ptr<SubscriptionRecord>& record, Error error);

  Gate& gate_;
  std::shared_ptr<xpc::Connection> connection_;  // null while there is none
  std::uint64_t nextOrder_ = 1;
  std::unordered_map<String, PublicationRecord, StringHash> publications_;
  std::unordered_map<String, std::shared_ptr<SubscriptionRecord>, StringHash> subscriptions_;
  std::move_only_function<void(const PublicationState&)> publicationHandler_;
};

}  // namespace keel
