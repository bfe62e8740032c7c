// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/admissions.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "runtime/foundation/check.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

std::size_t connectionLimitOfProcess() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const std::size_t descriptors =
      std::min<std::size_t>(limit.rlim_cur, limits::kConnections + limits::kReservedDescriptors);
  // With very few descriptors the reserve shrinks: a few clients are better than none.
  return descriptors > 2 * limits::kReservedDescriptors ? descriptors - limits::kReservedDescriptors
                                                        : descriptors / 2;
}

std::size_t memoryLimitOfUsers() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageBytes = ::sysconf(_SC_PAGESIZE);
  // A system that does not reveal its memory is assumed to be small.
  if (pages <= 0 || pageBytes <= 0) return 2 * limits::kMemoryOfOneUserBytes;
  return static_cast<std::size_t>(static_cast<double>(pages) * static_cast<double>(pageBytes) *
                                  limits::kMemoryShareOfUsers);
}

}  // namespace

Admissions& Admissions::ofProcess() {
  static Admissions& admissions = *new Admissions(connectionLimitOfProcess());
  return admissions;
}

bool Admissions::full() const {
  const std::lock_guard lock(mutex_);
  return count_ >= connectionLimit_;
}

bool Admissions::hasRoom() const {
  const std::lock_guard lock(mutex_);
  return count_ < connectionLimit_ - connectionLimit_ / 10;
}

Admission::Admission(const Admission& other) : counter_(other.counter_), uid_(other.uid_) {
  if (counter_ != nullptr) counter_->add(uid_);
}

Admission::~Admission() {
  if (counter_ != nullptr) counter_->remove(uid_);
}

Admissions::Refusal Admissions::admit(uid_t uid, Admission& admission) {
  const std::lock_guard lock(mutex_);
  if (count_ >= connectionLimit_) return Refusal::full;
  if (uid != 0) {
    const auto shareOfUsers = static_cast<std::size_t>(static_cast<double>(connectionLimit_) *
                                                       limits::kConnectionShareOfUsers);
    if (count_ >= shareOfUsers) return Refusal::tooManyOfUsers;
    const auto found = countByUser_.find(uid);
    if (found != countByUser_.end() && found->second >= shareOfUsers - count_)
      return Refusal::tooManyOfUser;
  }
  ++countByUser_[uid];
  ++count_;
  KEEL_CHECK(admission.counter_ == nullptr);  // its release would take the lock
  admission = Admission(*this, uid);
  return Refusal::none;
}

void Admissions::add(uid_t uid) {
  const std::lock_guard lock(mutex_);
  ++countByUser_[uid];
  ++count_;
}

void Admissions::remove(uid_t uid) {
  const std::lock_guard lock(mutex_);
  --count_;
  const auto found = countByUser_.find(uid);
  if (--found->second == 0) countByUser_.erase(found);
}

const MemoryQuota& memoryQuotaOfUser(uid_t uid) {
  static std::mutex& mutex = *new std::mutex;
  // Elements have stable addresses.
  static auto& quotasByUser = *new std::unordered_map<uid_t, MemoryQuota>;
  const std::lock_guard lock(mutex);
  static MemoryAccount& allUsers = *new MemoryAccount;
  static const std::size_t limitOfAll = memoryLimitOfUsers();
  const auto [entry, isNew] = quotasByUser.try_emplace(uid);
  MemoryQuota& quota = entry->second;
  if (isNew && uid == 0) {
    quota.account = new MemoryAccount;
  } else if (isNew) {
    quota = {.account = new MemoryAccount(allUsers),
             .limitBytes = limits::kMemoryOfOneUserBytes,
             .total = &allUsers,
             .totalLimitBytes = limitOfAll};
  }
  return quota;
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace keel::xpc
