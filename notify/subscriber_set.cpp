// SPDX-License-Identifier: Apache-2.0
// Members stand in a vector in the order of their adding; removing one leaves a hole, and the holes
// are closed when they are as many as the members. A small set is searched member by member. A
// large one has two indexes: from a member to its place, and from a connection to the place of its
// last member.
//
// The second index is a shortcut, and the weak reference of each subscription to its owner stays
// the truth:
// - An owner may be gone and its address may belong to a new connection. So what the index finds is
// compared with the weak
//   reference itself. Nothing else needs to be looked at then: of all members that were ever
//   indexed under one address, only those indexed last can have an owner that lives, since the
//   earlier owners died before it was made.
// - An owner may be replaced after the adding. KLNSubscriptionObject counts such changes, which
// never happen to subscriptions
//   of clients; when the count has moved, the index is made anew.
#include "notify/subscriber_set.h"

#include <utility>

#include "notify/subscription_object.h"

namespace keel {

namespace {

// Up to here a search costs less than keeping an index.
constexpr std::size_t kSearchedSlots = 16;

}  // namespace

void SubscriberSet::add(Subscription subscription) {
  if (!subscription || contains(subscription)) return;
  const std::size_t place = slots_.size();
  slots_.push_back({.subscription = std::move(subscription)});
  ++count_;
  if (indexed_) {
    places_.emplace(slots_[place].subscription.get(), place);
    indexOwnerAt(place);
  } else if (slots_.size() > kSearchedSlots) {
    index();
  }
}

void SubscriberSet::remove(const Subscription& subscription) {
  const std::size_t place = placeOf(subscription.get());
  if (place == kNowhere) return;
  if (indexed_) {
    places_.erase(subscription.get());
    unindexOwnerAt(place);
  }
  // `subscription` may be the slot's own reference.
  Subscription departing = std::move(slots_[place].subscription);
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
  const auto found = lastPlacesByOwner_.find(connection.get());
  if (found == lastPlacesByOwner_.end()) return nullptr;
  const Subscription& last = slots_[found->second.place].subscription;
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

std::size_t SubscriberSet::placeOf(const KLNSubscriptionObject* subscription) const {
  if (subscription == nullptr) return kNowhere;
  if (indexed_) {
    const auto found = places_.find(subscription);
    return found == places_.end() ? kNowhere : found->second;
  }
  for (std::size_t place = 0; place < slots_.size(); ++place) {
    if (slots_[place].subscription.get() == subscription) return place;
  }
  return kNowhere;
}

void SubscriberSet::index() {
  indexed_ = true;
  places_.clear();
  for (std::size_t place = 0; place < slots_.size(); ++place) {
    if (slots_[place].subscription) places_.emplace(slots_[place].subscription.get(), place);
  }
  indexOwners();
}

void SubscriberSet::indexOwners() {
  ownersAreStale_ = false;
  ownerChangeCount_ = KLNSubscriptionObject::ownerChangeCount();
  lastPlacesByOwner_.clear();
  for (std::size_t place = 0; place < slots_.size(); ++place) {
    if (slots_[place].subscription) indexOwnerAt(place);
  }
}

void SubscriberSet::indexOwnerAt(std::size_t place) {
  Slot& slot = slots_[place];
  slot.owner = slot.subscription->owner().get();
  if (slot.owner == nullptr) return;
  const auto [known, isNew] = lastPlacesByOwner_.try_emplace(slot.owner, LastPlace{place, 1});
  if (!isNew) known->second = {place, known->second.memberCount + 1};
}

void SubscriberSet::unindexOwnerAt(std::size_t place) {
  const auto known = lastPlacesByOwner_.find(slots_[place].owner);
  if (known == lastPlacesByOwner_.end()) return;
  if (--known->second.memberCount == 0) {
    lastPlacesByOwner_.erase(known);
  } else if (known->second.place == place) {
    // Which of its other members is the last now, only a search can tell.
    ownersAreStale_ = true;
  }
}

void SubscriberSet::endVisits() {
  closeHoles();
  // Destroyed last, and outside the member: what a destruction does may come back here.
  const std::vector<Subscription> departed = std::exchange(departed_, {});
}

void SubscriberSet::closeHoles() {
  while (!slots_.empty() && !slots_.back().subscription) slots_.pop_back();
  const std::size_t holeCount = slots_.size() - count_;
  if (holeCount <= kSearchedSlots || holeCount <= count_) return;
  std::erase_if(slots_, [](const Slot& slot) { return !slot.subscription; });
  slots_.shrink_to_fit();
  if (slots_.size() > kSearchedSlots) return index();
  indexed_ = false;
  places_ = {};
  lastPlacesByOwner_ = {};
}

}  // namespace keel
