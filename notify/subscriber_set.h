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

// The subscriptions of one item, without duplicates, enumerated in insertion order. Lives on the
// notification input queue. Adding, removing and finding are O(1).
class SubscriberSet {
 public:
  using Subscription = std::shared_ptr<KLNSubscriptionObject>;

  SubscriberSet() = default;
  SubscriberSet(const SubscriberSet&) = delete;
  SubscriberSet& operator=(const SubscriberSet&) = delete;

  // Ignores null and members.
  void add(Subscription subscription);
  // Ignores non-members.
  void remove(const Subscription& subscription);

  std::size_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool contains(const Subscription& subscription) const {
    return indexOf(subscription.get()) != kNoIndex;
  }
  // Returns the last member, in the order of enumeration, whose owner is that very connection, or
  // null. A member whose owner is gone matches nothing, and neither does null.
  Subscription lastOwnedBy(const std::shared_ptr<xpc::Connection>& connection);
  // Returns a snapshot.
  std::vector<Subscription> allObjects() const;

  // Calls visit(KLNSubscriptionObject&) for each member, without touching any reference count.
  // Callees may add and remove members, and enumerate: added members are not visited; removed ones
  // are not visited either, but live until the end of the visits.
  template <class Visit>
  void forEach(Visit visit) {
    const Visiting visiting(*this);
    const std::size_t end = slots_.size();
    for (std::size_t index = 0; index < end; ++index) {
      // Each member is a cache miss.
      if (index + kPrefetchDistance < end)
        __builtin_prefetch(slots_[index + kPrefetchDistance].subscription.get());
      if (KLNSubscriptionObject* const subscription = slots_[index].subscription.get())
        visit(*subscription);
    }
  }

 private:
  struct Slot {
    Subscription subscription;               // null: a hole, where a member was removed
    const xpc::Connection* owner = nullptr;  // its key in lastIndexesByOwner_; never dereferenced
  };
  struct LastIndex {
    std::size_t index;
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

  static constexpr std::size_t kNoIndex = SIZE_MAX;
  static constexpr std::size_t kPrefetchDistance = 4;

  std::size_t indexOf(const KLNSubscriptionObject* subscription) const;
  void buildIndexes();
  void indexOwners();
  void indexOwnerAt(std::size_t index);
  void unindexOwnerAt(std::size_t index);
  void endVisits();
  void closeHoles();

  std::vector<Slot> slots_;
  std::size_t count_ = 0;
  std::size_t visitCount_ = 0;          // enumerations in progress, during which holes stay open
  std::vector<Subscription> departed_;  // removed during an enumeration

  // Maintained once the set is too large for a linear search.
  bool indexed_ = false;
  bool ownersAreStale_ = false;
  std::uint64_t ownerChangeCount_ = 0;  // of KLNSubscriptionObject, when the owners were indexed
  std::unordered_map<const KLNSubscriptionObject*, std::size_t> indexes_;
  std::unordered_map<const xpc::Connection*, LastIndex> lastIndexesByOwner_;
};

}  // namespace keel
