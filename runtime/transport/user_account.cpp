// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/user_account.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>

#include "runtime/dispatch/system.h"
#include "runtime/dispatch/worker_pool.h"
#include "runtime/foundation/available_memory.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

UserAccount& UserAccount::of(uid_t uid) {
  static std::mutex& mutex = *new std::mutex;
  // Elements have stable addresses.
  static auto& accountsByUser = *new std::unordered_map<uid_t, UserAccount>;
  const std::lock_guard lock(mutex);
  static MemoryAccount& allUsers = *new MemoryAccount;
  static const std::size_t budget =
      std::min(limits::kClientMemoryBytes, availableMemoryBytes() / limits::kClientMemoryDivisor);
  const auto [entry, isNew] = accountsByUser.try_emplace(uid);
  UserAccount& account = entry->second;
  if (!isNew) return account;
  account.quota = {.account = new MemoryAccount(allUsers),
                   .total = &allUsers,
                   .totalLimitBytes = budget,
                   .mayTakeAll = uid == 0};
  account.checks = SerialQueue::create("KeelChecks", globalQueue().laneOf(uid));
  return account;
}

}  // namespace keel::xpc
