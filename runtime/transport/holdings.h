// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runtime/foundation/memory_account.h"

namespace keel::xpc {

// Tracks how much of a resource each of several holders has, grouped by the user who pays for it:
// backlogs of streams, or received files that no message has claimed. Determines the holder to drop
// when the total is too large. Lives on the thread of its holders.
template <class Holder>
class Holdings {
 public:
  // Sets what `holder` holds now; an amount of 0 removes it. `exclusiveAmount` is the part that no
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

  // Returns the largest holders of `user`, or of the user who holds most if it is null: just enough
  // to exceed 1 / kWorthwhilePart of that user's amount, so that the search pays, and at most
  // kHoldersAtOnce. Empty if nobody holds anything.
  static constexpr std::size_t kHoldersAtOnce = 64;
  static constexpr std::size_t kWorthwhilePart = 16;
  std::vector<Holder*> largestHolders(const MemoryAccount* user = nullptr) const {
    if (users_.empty()) return {};
    const auto found = users_.find(user);
    const User& most = user == nullptr
                           ? std::ranges::max_element(
                                 users_, {}, [](const auto& each) { return each.second.amount; })
                                 ->second
                       : found == users_.end() ? kNobody
                                               : found->second;
    std::vector<std::pair<std::size_t, Holder*>> sorted;
    for (const auto& [holder, entry] : most.entries) sorted.emplace_back(entry.amount, holder);
    const auto end =
        sorted.begin() + static_cast<std::ptrdiff_t>(std::min(sorted.size(), kHoldersAtOnce));
    std::ranges::partial_sort(sorted, end, std::ranges::greater(),
                              &decltype(sorted)::value_type::first);
    std::vector<Holder*> largest;
    std::size_t sum = 0;
    for (auto each = sorted.begin(); each != end && sum <= most.amount / kWorthwhilePart; ++each) {
      sum += each->first;
      largest.push_back(each->second);
    }
    return largest;
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

  static inline const User kNobody{};

  std::unordered_map<const MemoryAccount*, User> users_;
  std::size_t exclusiveTotal_ = 0;
  std::uint64_t lastArrival_ = 0;
};

}  // namespace keel::xpc
