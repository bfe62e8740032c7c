// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/timer_list.h"

#include "runtime/foundation/check.h"

namespace keel {

TimerList::Id TimerList::add(TimePoint due, Block block) {
  KEEL_CHECK(block);
  const Id timer = nextId_++;
  blocks_.emplace(Key(due, timer), std::move(block));
  dueTimes_.emplace(timer, due);
  return timer;
}

void TimerList::cancel(Id timer) {
  const auto found = dueTimes_.find(timer);
  if (found == dueTimes_.end()) return;
  // Destroyed last: the destruction of the block may come back here.
  const auto cancelled = blocks_.extract(Key(found->second, timer));
  dueTimes_.erase(found);
}

std::optional<TimerList::TimePoint> TimerList::nextDue() const {
  if (blocks_.empty()) return std::nullopt;
  return blocks_.begin()->first.first;
}

bool TimerList::runDue(TimePoint now) {
  bool ran = false;
  const Id end = nextId_;
  for (auto first = blocks_.begin(); first != blocks_.end(); first = blocks_.begin()) {
    const auto [due, timer] = first->first;
    // A timer added meanwhile is due at `now` at the earliest, so it sorts after all that were
    // there before.
    if (due > now || timer >= end) break;
    auto running = blocks_.extract(first);
    dueTimes_.erase(timer);
    running.mapped()();
    ran = true;
  }
  return ran;
}

void TimerList::clear() {
  const auto dropped = std::exchange(blocks_, {});
  dueTimes_.clear();
}

}  // namespace keel
