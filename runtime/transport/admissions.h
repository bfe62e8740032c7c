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

// Counts connections and limits their number, in total and per user. From any thread.
class Admissions : public std::enable_shared_from_this<Admissions> {
 public:
  enum class Refusal : std::uint8_t { none, full, tooManyOfUser, tooManyOfUsers };

  // Returns the admissions of this process; the limit follows from RLIMIT_NOFILE at the first call.
  static std::shared_ptr<Admissions> ofProcess();
  explicit Admissions(std::size_t connectionLimit) : connectionLimit_(connectionLimit) {}

  bool full() const;
  // Returns true well below the limit, where a shortage is over and not merely interrupted.
  bool hasRoom() const;
  // Admits one connection of `uid` and counts it until `admission` is released; a refusal sets and
  // counts nothing. Root is bounded by the total only. All others share a part of it, of which each
  // is granted at most as many as are still free, so no single user locks the others out.
  Refusal admit(uid_t uid, std::shared_ptr<void>& admission);

 private:
  const std::size_t connectionLimit_;
  mutable std::mutex mutex_;
  std::size_t count_ = 0;                               // under mutex_
  std::unordered_map<uid_t, std::size_t> countByUser_;  // under mutex_
};

// Returns the memory quota of a user, the same for all its connections and kept for the life of the
// process; root's has no limit.
const MemoryQuota& memoryQuotaOfUser(uid_t uid);

// Raises the soft limit of open descriptors to the hard one, so that the administrator's limit
// decides the number of connections.
void raiseDescriptorLimit();

}  // namespace keel::xpc
