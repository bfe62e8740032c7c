// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "runtime/foundation/memory_account.h"

namespace keel::xpc {

// How much of something each of several holders has, by the user who answers for it: the backlogs
// of streams, or received files that no message has claimed. Tells who has to go when all is too
// much. Lives on the thread of its holders.
template <class Holder>
class Holdings {
 public:
  // Notes what `holder` has now; an amount of 0 takes it off the books. `ownAmount` is the part
  // that nobody else shares.
  void note(Holder* holder, const MemoryAccount* user, std::size_t amount, std::size_t ownAmount) {
    if (amount == 0) ownAmount = 0;
    const auto of = users_.try_emplace(user).first;
    const auto [entry, isNew] = of->second.entries.try_emplace(holder);
    if (isNew) entry->second.since = ++lastArrival_;
    of->second.amount += amount - entry->second.amount;
    ownTotal_ += ownAmount - entry->second.ownAmount;
    entry->second.amount = amount;
    entry->second.ownAmount = ownAmount;
    if (amount > 0) return;
    of->second.entries.erase(entry);
    if (of->second.entries.empty()) users_.erase(of);
  }

  // Of all holders together, what is nobody else's.
  std::size_t ownTotal() const { return ownTotal_; }

  // Of the user who holds most, the holder with most; among equals the one that has been on the
  // books longest. Null when nobody holds anything.
  Holder* heaviest() const {
    if (users_.empty()) return nullptr;
    const auto& most =
        *std::ranges::max_element(users_, {}, [](const auto& user) { return user.second.amount; });
    const auto isLighter = [](const auto& left, const auto& right) {
      if (left.second.amount != right.second.amount)
        return left.second.amount < right.second.amount;
      return left.second.since > right.second.since;
    };
    return std::ranges::max_element(most.second.entries, isLighter)->first;
  }

 private:
  struct Entry {
    std::size_t amount = 0;
    std::size_t ownAmount = 0;
    std::uint64_t since = 0;
  };
  struct User {
    std::unordered_map<Holder*, Entry> entries;
    std::size_t amount = 0;
  };

  std::unordered_map<const MemoryAccount*, User> users_;
  std::size_t ownTotal_ = 0;
  std::uint64_t lastArrival_ = 0;
};

}  // namespace keel::xpc
