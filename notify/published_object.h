// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <span>

#include "notify/dump_coordinator.h"
#include "notify/same_object.h"
#include "notify/subscriber_set.h"
#include "protocols/publish_behavior.h"
#include "runtime/foundation/collections.h"
#include "runtime/foundation/date.h"
#include "runtime/foundation/string.h"

namespace keel {

namespace xpc {
class Connection;
}

// One name of the registry: its data, their date, its publisher and its subscribers. Lives on the
// notification input queue. Owned by the registry and by its publisher's handler; owns its
// behaviour and its subscriptions, and refers to its publisher weakly. Without a behaviour it is a
// placeholder: it keeps its data and subscribers until somebody publishes the name.
class KLNPublishedObject final : public protocols::PublishBehavior {
 public:
  // Creates an item without a name or a subscriber set: it ignores subscribers that are added.
  static std::shared_ptr<KLNPublishedObject> init();
  // Logs and returns null if `name` is null.
  static std::shared_ptr<KLNPublishedObject> initWithName(Name name);
  ~KLNPublishedObject() override;
  KLNPublishedObject(const KLNPublishedObject&) = delete;
  KLNPublishedObject& operator=(const KLNPublishedObject&) = delete;

  // Captures the item for the dumps in progress that lack it. Must precede each change to this item
  // or its subscriptions that a dump shows; the setters here call it. Without such a dump it costs
  // one comparison.
  void willChange() {
    if (dumpEntry_.coordinator != nullptr &&
        dumpEntry_.capturedFor < dumpEntry_.coordinator->lastNumber()) [[unlikely]] {
      dumpEntry_.coordinator->capture(*this);
    }
  }

  // Returns the last subscription of that connection, in the set's order, or null.
  std::shared_ptr<KLNSubscriptionObject> subscriberForConnection(
      const std::shared_ptr<xpc::Connection>& connection);

  // Forwarded to the behaviour. A placeholder stores data without date and deliveries, ignores
  // errors, may always be dropped, and manages its subscriber set itself.
  void updateWithData(Dictionary data) override;
  void updateWithBatch(std::span<const Dictionary> batch) override;
  void updateWithError(Error error) override;
  void connectionIsInvalid() override;
  bool remove() override;
  void addSubscriber(std::shared_ptr<KLNSubscriptionObject> subscriber) override;
  void removeSubscriber(const std::shared_ptr<KLNSubscriptionObject>& subscriber) override;

  const std::shared_ptr<protocols::PublishBehavior>& delegate() const { return delegate_; }
  void setDelegate(std::shared_ptr<protocols::PublishBehavior> delegate) {
    delegate_ = std::move(delegate);
  }
  const Dictionary& data() const { return data_; }
  // Charges the replaced data to the process: from now on only slow readers keep it alive.
  void setData(Dictionary data) {
    willChange();
    if (data_.buffer() && data_.buffer()->isShared())
      data_.buffer()->chargeTo(MemoryAccount::ofProcess());
    data_ = std::move(data);
  }
  // When the behaviour last stored data.
  const std::optional<Date>& lastUpdated() const { return lastUpdated_; }
  void setLastUpdated(std::optional<Date> date) {
    willChange();
    lastUpdated_ = date;
  }
  const Name& name() const { return name_; }
  void setName(Name name) {
    willChange();
    name_ = std::move(name);
  }
  // Returns the publisher's connection, or null once it is gone.
  std::shared_ptr<xpc::Connection> owner() const { return owner_.lock(); }
  const std::weak_ptr<xpc::Connection>& ownerReference() const { return owner_; }
  // Returns true if `connection` is or was the owner.
  bool isOwnedBy(const std::weak_ptr<xpc::Connection>& connection) const {
    return sameObject(owner_, connection);
  }
  void setOwner(const std::shared_ptr<xpc::Connection>& owner) {
    willChange();
    owner_ = owner;
  }
  // Null for an item made with init().
  SubscriberSet* subscribers() { return subscribers_ ? &*subscribers_ : nullptr; }

 private:
  friend class DumpCoordinator;
  // Its links in the list of the registry's items; null coordinator: it is in no table.
  struct DumpEntry {
    DumpCoordinator* coordinator = nullptr;
    std::uint64_t capturedFor = 0;  // the last dump it was captured for
    KLNPublishedObject* previous = nullptr;
    KLNPublishedObject* next = nullptr;
  };

  KLNPublishedObject() = default;

  std::shared_ptr<protocols::PublishBehavior> delegate_;
  Dictionary data_;
  std::optional<Date> lastUpdated_;
  Name name_;
  std::weak_ptr<xpc::Connection> owner_;
  std::optional<SubscriberSet> subscribers_;
  DumpEntry dumpEntry_;
};

}  // namespace keel
