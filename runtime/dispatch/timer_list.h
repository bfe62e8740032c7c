// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>

#include "runtime/dispatch/block.h"

namespace keel {

// Blocks with their due times. Has no clock: the owner passes the time.
class TimerList {
 public:
  using Id = std::uint64_t;
  using TimePoint = std::chrono::steady_clock::time_point;

  // Returns an id, never 0.
  Id add(TimePoint due, Block block);
  // Destroys the block. Has no effect on a timer that has run or was cancelled.
  void cancel(Id timer);

  bool empty() const { return blocks_.empty(); }
  // Returns when the first timer is due, if there is one.
  std::optional<TimePoint> nextDue() const;

  // Runs what is due at `now`, by due time, then in the order of addition. Timers added meanwhile
  // are left for the next call. Returns false if none was due.
  bool runDue(TimePoint now);
  // Destroys all blocks without running them.
  void clear();

 private:
  using Key = std::pair<TimePoint, Id>;

  std::map<Key, Block> blocks_;
  std::unordered_map<Id, TimePoint> dueTimes_;  // of those in blocks_
  Id nextId_ = 1;
};

}  // namespace keel
