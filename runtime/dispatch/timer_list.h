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

// Blocks with the time at which each is due. Knows no clock; whoever owns it tells it the time.
class TimerList {
 public:
  using Id = std::uint64_t;
  using TimePoint = std::chrono::steady_clock::time_point;

  // Never 0.
  Id add(TimePoint due, Block block);
  // Destroys the block. Does nothing for one that has run or was cancelled.
  void cancel(Id timer);

  bool empty() const { return blocks_.empty(); }
  // When the first is due; none when there is none.
  std::optional<TimePoint> nextDue() const;

  // Runs what is due at `now`, in the order of the due times, those of equal times in the order of
  // the adding. What is added meanwhile runs the next time. Returns whether there was any.
  bool runDue(TimePoint now);
  // Destroys all.
  void clear();

 private:
  using Key = std::pair<TimePoint, Id>;

  std::map<Key, Block> blocks_;
  std::unordered_map<Id, TimePoint> dueTimes_;  // of those in blocks_
  Id nextId_ = 1;
};

}  // namespace keel
