// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace keel::xpc {

class Admissions;

// Counts one connection, or none, until it is destroyed. A copy counts a further connection,
// whatever the limits. From any thread.
class Admission {
 public:
  Admission() = default;
  Admission(const Admission& other);
  Admission(Admission&& other) noexcept
      : counter_(std::exchange(other.counter_, nullptr)), uid_(other.uid_) {}
  Admission& operator=(Admission other) noexcept {
    std::swap(counter_, other.counter_);
    std::swap(uid_, other.uid_);
    return *this;
  }
  ~Admission();

 private:
  friend class Admissions;
  Admission(Admissions& counter, uid_t uid) : counter_(&counter), uid_(uid) {}

  Admissions* counter_ = nullptr;
  uid_t uid_ = 0;
};

// Counts connections and limits their number, in total and per user. Outlives its admissions. From
// any thread.
class Admissions {
 public:
  enum class Refusal : std::uint8_t { none, full, tooManyOfUser, tooManyOfUsers };

  // Returns the admissions of this process; the limit follows from RLIMIT_NOFILE at the first call.
  static Admissions& ofProcess();
  explicit Admissions(std::size_t connectionLimit) : connectionLimit_(connectionLimit) {}
  Admissions(const Admissions&) = delete;
  Admissions& operator=(const Admissions&) = delete;

  bool full() const;
  // Returns true well below the limit, where a shortage is over and not merely interrupted.
  bool hasRoom() const;
  // Admits one connection of `uid` and sets `admission`, which counts it; a refusal sets nothing.
  // Root is bounded by the total only. The others share a part of it, and each is granted at most
  // as many as are still free, so no single user locks the others out.
  Refusal admit(uid_t uid, Admission& admission);

 private:
  friend class Admission;
  void add(uid_t uid);
  void remove(uid_t uid);

  const std::size_t connectionLimit_;
  mutable std::mutex mutex_;
  std::size_t count_ = 0;                               // under mutex_
  std::unordered_map<uid_t, std::size_t> countByUser_;  // under mutex_
};

// Raises the soft limit of open descriptors to the hard one, so that the administrator's limit
// decides the number of connections.
void raiseDescriptorLimit();

}  // namespace keel::xpc
