// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

namespace keel {

class KLNSubscriptionObject;
namespace xpc {
class Connection;
}

// The subscriptions that follow one item, each at most once, enumerated in the order of their
// adding. Lives on the notification input queue. Adding, removing and finding take the same time
// for one member and for a hundred thousand.
class SubscriberSet {
 public:
  using Subscription = std::shared_ptr<KLNSubscriptionObject>;

  SubscriberSet() = default;
  SubscriberSet(const SubscriberSet&) = delete;
  SubscriberSet& operator=(const SubscriberSet&) = delete;

  // Nothing for null, or for a member.
  void add(Subscription subscription);
  // Nothing for who is no member.
  void remove(const Subscription& subscription);

  std::size_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool contains(const Subscription& subscription) const {
    return placeOf(subscription.get()) != kNowhere;
  }
  // The last member in the order of enumeration whose owner is that very connection; null when
  // there is none. A member whose owner is gone is nobody's, and null owns nothing.
  Subscription lastOwnedBy(const std::shared_ptr<xpc::Connection>& connection);
  // A snapshot.
  std::vector<Subscription> allObjects() const;

  // Calls visit(KLNSubscriptionObject&) for each member, without touching any reference count.
  // Callees may add and remove members, and enumerate: who is added is not visited, who is removed
  // is not visited any more but lives until the end of the visits.
  template <class Visit>
  void forEach(Visit visit) {
    const Visiting visiting(*this);
    const std::size_t end = slots_.size();
    for (std::size_t place = 0; place < end; ++place) {
      // With many members most of the time would go into waiting for memory.
      if (place + kAhead < end) __builtin_prefetch(slots_[place + kAhead].subscription.get());
      if (KLNSubscriptionObject* const subscription = slots_[place].subscription.get())
        visit(*subscription);
    }
  }

 private:
  struct Slot {
    Subscription subscription;               // null: a hole, where a member was removed
    const xpc::Connection* owner = nullptr;  // as lastPlacesByOwner_ knows it; never dereferenced
  };
  struct LastPlace {
    std::size_t place;
    std::size_t memberCount;  // with this owner
  };
  class Visiting {
   public:
    explicit Visiting(SubscriberSet& set) : set_(set) { ++set_.visitCount_; }
    ~Visiting() {
      if (--set_.visitCount_ == 0 && !set_.departed_.empty()) set_.endVisits();
    }
    Visiting(const Visiting&) = delete;
    Visiting& operator=(const Visiting&) = delete;

   private:
    SubscriberSet& set_;
  };

  static constexpr std::size_t kNowhere = SIZE_MAX;
  static constexpr std::size_t kAhead = 4;

  std::size_t placeOf(const KLNSubscriptionObject* subscription) const;
  void index();
  void indexOwners();
  void indexOwnerAt(std::size_t place);
  void unindexOwnerAt(std::size_t place);
  void endVisits();
  void closeHoles();

  std::vector<Slot> slots_;
  std::size_t count_ = 0;
  std::size_t visitCount_ = 0;  // enumerations under way; holes stay where they are meanwhile
  std::vector<Subscription> departed_;  // removed during an enumeration

  // Kept once the set is too large to be searched member by member.
  bool indexed_ = false;
  bool ownersAreStale_ = false;
  std::uint64_t ownerChangeCount_ = 0;  // of KLNSubscriptionObject, when the owners were indexed
  std::unordered_map<const KLNSubscriptionObject*, std::size_t> places_;
  std::unordered_map<const xpc::Connection*, LastPlace> lastPlacesByOwner_;
};

}  // namespace keel
