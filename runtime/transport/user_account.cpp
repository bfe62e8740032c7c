// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/user_account.h"

#include <unistd.h>

#include <mutex>
#include <unordered_map>

#include "runtime/dispatch/system.h"
#include "runtime/dispatch/worker_pool.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

std::size_t memoryLimitOfUsers() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageBytes = ::sysconf(_SC_PAGESIZE);
  // A system that does not reveal its memory is assumed to be small.
  if (pages <= 0 || pageBytes <= 0) return 2 * limits::kMemoryOfOneUserBytes;
  return static_cast<std::size_t>(static_cast<double>(pages) * static_cast<double>(pageBytes) *
                                  limits::kMemoryShareOfUsers);
}

}  // namespace

UserAccount& UserAccount::of(uid_t uid) {
  static std::mutex& mutex = *new std::mutex;
  // Elements have stable addresses.
  static auto& accountsByUser = *new std::unordered_map<uid_t, UserAccount>;
  const std::lock_guard lock(mutex);
  static MemoryAccount& allUsers = *new MemoryAccount;
  static const std::size_t limitOfAll = memoryLimitOfUsers();
  const auto [entry, isNew] = accountsByUser.try_emplace(uid);
  UserAccount& account = entry->second;
  if (isNew && uid == 0) {
    account.quota.account = new MemoryAccount;
  } else if (isNew) {
    account.quota = {.account = new MemoryAccount(allUsers),
                     .limitBytes = limits::kMemoryOfOneUserBytes,
                     .total = &allUsers,
                     .totalLimitBytes = limitOfAll};
  }
  if (isNew) account.checks = SerialQueue::create("KeelChecks", globalQueue().laneOf(uid));
  return account;
}

}  // namespace keel::xpc
