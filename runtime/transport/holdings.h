// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "runtime/foundation/memory_account.h"

namespace keel::xpc {

// Tracks how much of a resource each of several holders has, grouped by the user who pays for it:
// backlogs of streams, or received files that no message has claimed. Determines the holder to drop
// when the total is too large. Lives on the thread of its holders.
template <class Holder>
class Holdings {
 public:
  // Sets what `holder` has now; an amount of 0 removes it. `exclusiveAmount` is the part that no
  // other holder shares.
  void update(Holder* holder, const MemoryAccount* user, std::size_t amount,
              std::size_t exclusiveAmount) {
    if (amount == 0) exclusiveAmount = 0;
    const auto of = users_.try_emplace(user).first;
    const auto [entry, isNew] = of->second.entries.try_emplace(holder);
    if (isNew) entry->second.since = ++lastArrival_;
    of->second.amount += amount - entry->second.amount;
    exclusiveTotal_ += exclusiveAmount - entry->second.exclusiveAmount;
    entry->second.amount = amount;
    entry->second.exclusiveAmount = exclusiveAmount;
    if (amount > 0) return;
    of->second.entries.erase(entry);
    if (of->second.entries.empty()) users_.erase(of);
  }

  // Returns the sum of the exclusive amounts.
  std::size_t exclusiveTotal() const { return exclusiveTotal_; }

  // Returns the largest holder of the user who holds most; among equals the oldest. Null if nobody
  // holds anything.
  Holder* largestHolder() const {
    if (users_.empty()) return nullptr;
    const auto& most =
        *std::ranges::max_element(users_, {}, [](const auto& user) { return user.second.amount; });
    const auto isSmaller = [](const auto& left, const auto& right) {
      if (left.second.amount != right.second.amount)
        return left.second.amount < right.second.amount;
      return left.second.since > right.second.since;
    };
    return std::ranges::max_element(most.second.entries, isSmaller)->first;
  }

 private:
  struct Entry {
    std::size_t amount = 0;
    std::size_t exclusiveAmount = 0;
    std::uint64_t since = 0;
  };
  struct User {
    std::unordered_map<Holder*, Entry> entries;
    std::size_t amount = 0;
  };

  std::unordered_map<const MemoryAccount*, User> users_;
  std::size_t exclusiveTotal_ = 0;
  std::uint64_t lastArrival_ = 0;
};

}  // namespace keel::xpc
