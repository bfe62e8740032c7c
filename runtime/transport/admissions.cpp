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

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace keel::xpc
