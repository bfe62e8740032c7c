// SPDX-License-Identifier: Apache-2.0
//
// Members are in a vector in insertion order. Removing one leaves a hole, and the holes are closed
// once they outnumber the members. A small set is searched linearly. A large one has two indexes:
// from a member to its position, and from a connection to the position of its last member.
//
// The second index is a shortcut; each subscription's weak reference to its owner is authoritative:
// - An owner may be gone and its address may belong to a new connection, so a hit is compared with
//   the weak reference. Nothing else needs a look then: of all members ever indexed under one
//   address, only those indexed last can have an owner that is alive, since the earlier owners died
//   before it was created.
// - An owner may be replaced after insertion. KLNSubscriptionObject counts such changes, which
//   never happen to subscriptions of clients; when the count has changed, the index is rebuilt.
#include "notify/subscriber_set.h"

#include <utility>

#include "notify/subscription_object.h"

namespace keel {

namespace {

// Up to this size a linear search costs less than an index.
constexpr std::size_t kSearchedSlots = 16;

}  // namespace

void SubscriberSet::add(Subscription subscription) {
  if (!subscription || contains(subscription)) return;
  const std::size_t index = slots_.size();
  slots_.push_back({.subscription = std::move(subscription)});
  ++count_;
  if (indexed_) {
    indexes_.emplace(slots_[index].subscription.get(), index);
    indexOwnerAt(index);
  } else if (slots_.size() > kSearchedSlots) {
    buildIndexes();
  }
}

void SubscriberSet::remove(const Subscription& subscription) {
  const std::size_t index = indexOf(subscription.get());
  if (index == kNoIndex) return;
  if (indexed_) {
    indexes_.erase(subscription.get());
    unindexOwnerAt(index);
  }
  // `subscription` may refer to the slot's own reference.
  Subscription departing = std::move(slots_[index].subscription);
  --count_;
  if (visitCount_ > 0) {
    departed_.push_back(std::move(departing));
  } else {
    closeHoles();
  }
}

SubscriberSet::Subscription SubscriberSet::lastOwnedBy(
    const std::shared_ptr<xpc::Connection>& connection) {
  if (!connection) return nullptr;
  if (!indexed_) {
    Subscription last;
    for (const Slot& slot : slots_) {
      if (slot.subscription && slot.subscription->isOwnedBy(connection)) last = slot.subscription;
    }
    return last;
  }
  if (ownersAreStale_ || ownerChangeCount_ != KLNSubscriptionObject::ownerChangeCount())
    indexOwners();
  const auto found = lastIndexesByOwner_.find(connection.get());
  if (found == lastIndexesByOwner_.end()) return nullptr;
  const Subscription& last = slots_[found->second.index].subscription;
  return last->isOwnedBy(connection) ? last : nullptr;
}

std::vector<SubscriberSet::Subscription> SubscriberSet::allObjects() const {
  std::vector<Subscription> all;
  all.reserve(count_);
  for (const Slot& slot : slots_) {
    if (slot.subscription) all.push_back(slot.subscription);
  }
  return all;
}

std::size_t SubscriberSet::indexOf(const KLNSubscriptionObject* subscription) const {
  if (subscription == nullptr) return kNoIndex;
  if (indexed_) {
    const auto found = indexes_.find(subscription);
    return found == indexes_.end() ? kNoIndex : found->second;
  }
  for (std::size_t index = 0; index < slots_.size(); ++index) {
    if (slots_[index].subscription.get() == subscription) return index;
  }
  return kNoIndex;
}

void SubscriberSet::buildIndexes() {
  indexed_ = true;
  indexes_.clear();
  for (std::size_t index = 0; index < slots_.size(); ++index) {
    if (slots_[index].subscription) indexes_.emplace(slots_[index].subscription.get(), index);
  }
  indexOwners();
}

void SubscriberSet::indexOwners() {
  ownersAreStale_ = false;
  ownerChangeCount_ = KLNSubscriptionObject::ownerChangeCount();
  lastIndexesByOwner_.clear();
  for (std::size_t index = 0; index < slots_.size(); ++index) {
    if (slots_[index].subscription) indexOwnerAt(index);
  }
}

void SubscriberSet::indexOwnerAt(std::size_t index) {
  Slot& slot = slots_[index];
  slot.owner = slot.subscription->owner().get();
  if (slot.owner == nullptr) return;
  const auto [known, isNew] = lastIndexesByOwner_.try_emplace(slot.owner, LastIndex{index, 1});
  if (!isNew) known->second = {index, known->second.memberCount + 1};
}

void SubscriberSet::unindexOwnerAt(std::size_t index) {
  const auto known = lastIndexesByOwner_.find(slots_[index].owner);
  if (known == lastIndexesByOwner_.end()) return;
  if (--known->second.memberCount == 0) {
    lastIndexesByOwner_.erase(known);
  } else if (known->second.index == index) {
    // Only a search finds the last of its other members.
    ownersAreStale_ = true;
  }
}

void SubscriberSet::endVisits() {
  closeHoles();
  // Destroyed last, outside the member: destructors may call back into this set.
  const std::vector<Subscription> departed = std::exchange(departed_, {});
}

void SubscriberSet::closeHoles() {
  while (!slots_.empty() && !slots_.back().subscription) slots_.pop_back();
  const std::size_t holeCount = slots_.size() - count_;
  if (holeCount <= kSearchedSlots || holeCount <= count_) return;
  std::erase_if(slots_, [](const Slot& slot) { return !slot.subscription; });
  slots_.shrink_to_fit();
  if (slots_.size() > kSearchedSlots) return buildIndexes();
  indexed_ = false;
  indexes_ = {};
  lastIndexesByOwner_ = {};
}

}  // namespace keel
