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

// What one client follows: a name, and the behaviour that brings its news to that client. Lives on
// the notification input queue. Held by the item that it follows and by its client's handler; it
// holds its behaviour, and neither the client nor the item. With a behaviour (the running daemon
// gives one to each) every operation is the behaviour's; without, it serves itself.
class KLNSubscriptionObject final : public protocols::SubscriberBehavior,
                                    public std::enable_shared_from_this<KLNSubscriptionObject> {
 public:
  // Nothing, as for a null name.
  static std::shared_ptr<KLNSubscriptionObject> init();
  // Null name: logs and yields nothing. A null connection is accepted.
  static std::shared_ptr<KLNSubscriptionObject> initWithName(
      Name name, const std::shared_ptr<xpc::Connection>& andConnection);

  // Sends `data` to the client and returns at once; `data` may be null (an item without data). A
  // client that is gone: logged, nothing sent, lastUpdated() unchanged. A failure to send is logged
  // later and changes nothing.
  void updateWithData(const Dictionary& data) override;
  // The same with an error. An error whose code is errPublisherDisconnected, of whatever domain, is
  // dropped: the client hears of the name again when somebody publishes it.
  void updateWithError(Error error) override;
  // Either of the two, as the delivery has it.
  void deliver(Delivery& delivery) override;
  // The client is gone: leaves the item, whose `target` it no longer is. The second time there is
  // nothing to leave.
  void connectionIsInvalid() override;

  const std::shared_ptr<protocols::SubscriberBehavior>& delegate() const { return delegate_; }
  void setDelegate(std::shared_ptr<protocols::SubscriberBehavior> delegate) {
    delegate_ = std::move(delegate);
  }
  // When something was last sent to the client. Whoever delivers tells the item before
  // (KLNPublishedObject::willChange()).
  const std::optional<Date>& lastUpdated() const { return lastUpdated_; }
  void setLastUpdated(std::optional<Date> date) { lastUpdated_ = date; }
  // Once per delivery: an optional that is built to be copied costs more than the rest of it.
  void setLastUpdated(Date date) { lastUpdated_ = date; }
  // The client's connection; null once it is gone.
  std::shared_ptr<xpc::Connection> owner() const { return owner_.lock(); }
  // The same without counting: good until whoever calls lets the input queue go on.
  xpc::Connection* borrowedOwner() const { return owner_.expired() ? nullptr : borrowedOwner_; }
  const std::weak_ptr<xpc::Connection>& ownerReference() const { return owner_; }
  void setOwner(const std::shared_ptr<xpc::Connection>& owner);
  // The item that it follows.
  std::shared_ptr<KLNPublishedObject> target() const { return target_.lock(); }
  void setTarget(const std::shared_ptr<KLNPublishedObject>& target) { target_ = target; }
  const Name& name() const { return name_; }
  void setName(Name name) { name_ = std::move(name); }

  // Whether owner() is `connection`, which is not null; cheaper than asking owner().
  bool isOwnedBy(const std::shared_ptr<xpc::Connection>& connection) const {
    return sameObject(owner_, connection);
  }
  // How often setOwner() has changed the owner of any subscription; on the input queue.
  static std::uint64_t ownerChangeCount();

 private:
  // Made by initWithName() alone, together with its count.
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
  // Connections are destroyed on the thread of the input queue, so one that lives goes on living
  // while a block runs.
  xpc::Connection* borrowedOwner_ = nullptr;
  std::weak_ptr<KLNPublishedObject> target_;
  Name name_;
};

}  // namespace keel
