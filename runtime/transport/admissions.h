// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "runtime/wire/argument.h"

namespace keel::xpc {

// How many connections there may be, in all and of one user, and how many there are. From any
// thread.
class Admissions : public std::enable_shared_from_this<Admissions> {
 public:
  enum class Refusal : std::uint8_t { none, full, tooManyOfUser, tooManyOfUsers };

  // All connections of this process; the limit follows from RLIMIT_NOFILE at the first call.
  static std::shared_ptr<Admissions> ofProcess();
  explicit Admissions(std::size_t connectionLimit) : connectionLimit_(connectionLimit) {}

  bool full() const;
  // Well below the limit: a shortage is over, not merely interrupted.
  bool hasRoom() const;
  // Counts one connection of `uid` in until `admission` is dropped; sets nothing and counts nothing
  // when refused. Root is bounded by the total only. All others have a share of it, of which one
  // may hold as many as are still free: no single one keeps the others out.
  Refusal admit(uid_t uid, std::shared_ptr<void>& admission);

 private:
  const std::size_t connectionLimit_;
  mutable std::mutex mutex_;
  std::size_t count_ = 0;                               // under mutex_
  std::unordered_map<uid_t, std::size_t> countByUser_;  // under mutex_
};

// The memory account of a user, the same for all its connections, kept for the life of the process;
// root's has no limit.
const MemoryQuota& memoryQuotaOfUser(uid_t uid);

// Raises the soft limit of open descriptors to the hard one, so that connections are bounded by
// what the administrator allows.
void raiseDescriptorLimit();

}  // namespace keel::xpc
