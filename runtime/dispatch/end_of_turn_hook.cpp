// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/end_of_turn_hook.h"

namespace keel {

void EndOfTurnLink::cancelEndOfTurn() noexcept {
  if (!isListed()) return;
  previous_->next_ = next_;
  next_->previous_ = previous_;
  previous_ = next_ = nullptr;
  round_ = kNoRound;
}

void LinkList::append(EndOfTurnLink& link) {
  link.previous_ = sentinel_.previous_;
  link.next_ = &sentinel_;
  link.previous_->next_ = &link;
  sentinel_.previous_ = &link;
}

void LinkList::prepend(LinkList& other) {
  if (other.empty()) return;
  EndOfTurnLink& first = *other.sentinel_.next_;
  EndOfTurnLink& last = *other.sentinel_.previous_;
  other.sentinel_.previous_ = other.sentinel_.next_ = &other.sentinel_;
  last.next_ = sentinel_.next_;
  last.next_->previous_ = &last;
  first.previous_ = &sentinel_;
  sentinel_.next_ = &first;
}

void EndOfTurnHooks::add(EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency) {
  EndOfTurnLink& link = hook;
  if (link.isListed()) {
    // A hook of the round that is running stays there: moving it would delay it.
    const bool stays = link.round_ != collecting_ && link.round_ != EndOfTurnLink::kNoRound;
    const bool gainsNothing =
        link.round_ == collecting_ &&
        (urgency == EndOfTurnHook::Urgency::normal || link.urgency_ == urgency);
    if (stays || gainsNothing) return;
    link.cancelEndOfTurn();
  }
  link.urgency_ = urgency;
  link.round_ = collecting_;
  Round& round = rounds_[collecting_];
  (urgency == EndOfTurnHook::Urgency::urgent ? round.urgent : round.normal).append(link);
}

EndOfTurnHooks::Round& EndOfTurnHooks::beginRun() {
  if (isEmpty(rounds_[collecting_ ^ 1])) collecting_ ^= 1;
  return rounds_[collecting_ ^ 1];
}

void EndOfTurnHooks::runFirst(LinkList& hooks) {
  EndOfTurnHook& hook = static_cast<EndOfTurnHook&>(hooks.front());
  hook.cancelEndOfTurn();
  hook.onEndOfTurn();
}

bool EndOfTurnHooks::run() {
  Round& round = beginRun();
  if (isEmpty(round)) return false;
  while (!round.urgent.empty()) runFirst(round.urgent);
  while (!round.normal.empty()) runFirst(round.normal);
  return true;
}

bool EndOfTurnHooks::runSome(std::size_t count) {
  Round& round = beginRun();
  for (; count > 0 && !isEmpty(round); --count)
    runFirst(round.urgent.empty() ? round.normal : round.urgent);
  return !isEmpty(round);
}

}  // namespace keel
