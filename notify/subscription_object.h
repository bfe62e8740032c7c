// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "notify/same_object.h"
#include "protocols/subscriber_behavior.h"
#include "runtime/foundation/date.h"
#include "runtime/foundation/string.h"
#include "runtime/xpc/connection.h"

namespace keel {

class KLNPublishedObject;

// Follows one name on behalf of one client. Lives on the notification input queue. Owned by the
// item it follows and by its client's handler; owns its behaviour, and refers to client and item
// weakly. Forwards every operation to its behaviour, which each has in the running daemon; without
// one it sends to the client itself.
class KLNSubscriptionObject final : public protocols::SubscriberBehavior,
                                    public std::enable_shared_from_this<KLNSubscriptionObject> {
 public:
  // Logs and returns null, as for a null name.
  static std::shared_ptr<KLNSubscriptionObject> init();
  // Logs and returns null if `name` is null. `andConnection` may be null.
  static std::shared_ptr<KLNSubscriptionObject> initWithName(
      Name name, const std::shared_ptr<xpc::Connection>& andConnection);

  // Sends `data`, which may be null (an item without data), to the client; never blocks. If the
  // client is gone: logs, sends nothing, leaves lastUpdated() unchanged. A failure to send is
  // logged later and changes nothing.
  void updateWithData(const Dictionary& data) override;
  // Sends `error` likewise. Drops an error with the code errPublisherDisconnected, of any domain:
  // the client receives data again once somebody publishes the name.
  void updateWithError(Error error) override;
  // Sends the delivery's batch or error.
  void deliver(Delivery& delivery) override;
  // Leaves the item and clears target(), since the client is gone. Idempotent.
  void connectionIsInvalid() override;

  const std::shared_ptr<protocols::SubscriberBehavior>& delegate() const { return delegate_; }
  void setDelegate(std::shared_ptr<protocols::SubscriberBehavior> delegate) {
    delegate_ = std::move(delegate);
  }
  // When something was last sent to the client. Deliveries call KLNPublishedObject::willChange() of
  // the item before they change it.
  const std::optional<Date>& lastUpdated() const { return lastUpdated_; }
  void setLastUpdated(std::optional<Date> date) { lastUpdated_ = date; }
  // Avoids the temporary optional, which costs more than the rest of this call, once per delivery.
  void setLastUpdated(Date date) { lastUpdated_ = date; }
  // Returns the client's connection, or null once it is gone.
  std::shared_ptr<xpc::Connection> owner() const { return owner_.lock(); }
  // Borrows it without counting a reference: valid until the running block ends.
  xpc::Connection* borrowedOwner() const { return owner_.expired() ? nullptr : borrowedOwner_; }
  const std::weak_ptr<xpc::Connection>& ownerReference() const { return owner_; }
  void setOwner(const std::shared_ptr<xpc::Connection>& owner);
  // Once `*cleanUp` is true, its client's clean-up has begun: updates are dropped silently,
  // although connectionIsInvalid() may be called much later.
  void setCleanUp(std::weak_ptr<const bool> cleanUp) { cleanUp_ = std::move(cleanUp); }
  // A cache miss in the client's handler: do not call it for every delivery.
  bool isCleanedUp() const {
    const auto cleanUp = cleanUp_.lock();
    return cleanUp && *cleanUp;
  }
  // The item that it follows.
  std::shared_ptr<KLNPublishedObject> target() const { return target_.lock(); }
  void setTarget(const std::shared_ptr<KLNPublishedObject>& target) { target_ = target; }
  const Name& name() const { return name_; }
  void setName(Name name) { name_ = std::move(name); }

  // Returns true if `connection`, which is not null, is the owner; cheaper than owner().
  bool isOwnedBy(const std::shared_ptr<xpc::Connection>& connection) const {
    return sameObject(owner_, connection);
  }
  // Counts the owner changes of all subscriptions by setOwner(). On the input queue.
  static std::uint64_t ownerChangeCount();

 private:
  // Only initWithName() constructs, with make_shared.
  struct Making {
    explicit Making() = default;
  };

 public:
  KLNSubscriptionObject(Making, Name name, const std::shared_ptr<xpc::Connection>& owner)
      : owner_(owner), borrowedOwner_(owner.get()), name_(std::move(name)) {}

 private:
  void deliverData(Delivery& delivery);
  void deliverError(Delivery& delivery);

  std::shared_ptr<protocols::SubscriberBehavior> delegate_;
  std::optional<Date> lastUpdated_;
  std::weak_ptr<xpc::Connection> owner_;
  // Connections are destroyed on the input queue's thread, so none disappears while a block runs.
  xpc::Connection* borrowedOwner_ = nullptr;
  std::weak_ptr<const bool> cleanUp_;
  std::weak_ptr<KLNPublishedObject> target_;
  Name name_;
};

}  // namespace keel
