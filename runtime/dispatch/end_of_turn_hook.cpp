// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/end_of_turn_hook.h"

namespace keel {

void EndOfTurnLink::cancelEndOfTurn() noexcept {
  if (!listed()) return;
  previous_->next_ = next_;
  next_->previous_ = previous_;
  previous_ = next_ = nullptr;
}

EndOfTurnHooks::EndOfTurnHooks() {
  for (Round& round : rounds_) {
    round.urgent.previous_ = round.urgent.next_ = &round.urgent;
    round.normal.previous_ = round.normal.next_ = &round.normal;
  }
}

EndOfTurnHooks::~EndOfTurnHooks() {
  for (Round& round : rounds_) {
    while (round.urgent.next_ != &round.urgent) round.urgent.next_->cancelEndOfTurn();
    while (round.normal.next_ != &round.normal) round.normal.next_->cancelEndOfTurn();
  }
}

void EndOfTurnHooks::add(EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency) {
  EndOfTurnLink& link = hook;
  if (link.listed()) {
    // One that is about to be told stays where it is: moving it would put it off.
    if (urgency == EndOfTurnHook::Urgency::normal || link.urgency_ == urgency ||
        link.round_ != collecting_)
      return;
    link.cancelEndOfTurn();
  }
  link.urgency_ = urgency;
  link.round_ = collecting_;
  Round& round = rounds_[collecting_];
  if (urgency == EndOfTurnHook::Urgency::urgent) {
    append(round.urgent, link);
  } else {
    append(round.normal, link);
  }
}

bool EndOfTurnHooks::empty() const {
  const Round& round = rounds_[collecting_];
  return round.urgent.next_ == &round.urgent && round.normal.next_ == &round.normal;
}

bool EndOfTurnHooks::tell() {
  Round& round = rounds_[collecting_];
  collecting_ ^= 1;
  const bool toldUrgent = tellAll(round.urgent);
  const bool toldNormal = tellAll(round.normal);
  return toldUrgent || toldNormal;
}

void EndOfTurnHooks::append(EndOfTurnLink& sentinel, EndOfTurnLink& hook) {
  hook.previous_ = sentinel.previous_;
  hook.next_ = &sentinel;
  hook.previous_->next_ = &hook;
  sentinel.previous_ = &hook;
}

bool EndOfTurnHooks::tellAll(EndOfTurnLink& sentinel) {
  bool told = false;
  while (sentinel.next_ != &sentinel) {
    EndOfTurnHook& hook = static_cast<EndOfTurnHook&>(*sentinel.next_);
    sentinel.next_->cancelEndOfTurn();
    hook.onEndOfTurn();
    told = true;
  }
  return told;
}

}  // namespace keel
