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
    // A hook of the round that is running stays there: moving it would delay it.
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

bool EndOfTurnHooks::run() {
  Round& round = rounds_[collecting_];
  collecting_ ^= 1;
  const bool ranUrgent = runAll(round.urgent);
  const bool ranNormal = runAll(round.normal);
  return ranUrgent || ranNormal;
}

void EndOfTurnHooks::append(EndOfTurnLink& sentinel, EndOfTurnLink& hook) {
  hook.previous_ = sentinel.previous_;
  hook.next_ = &sentinel;
  hook.previous_->next_ = &hook;
  sentinel.previous_ = &hook;
}

bool EndOfTurnHooks::runAll(EndOfTurnLink& sentinel) {
  bool ran = false;
  while (sentinel.next_ != &sentinel) {
    EndOfTurnHook& hook = static_cast<EndOfTurnHook&>(*sentinel.next_);
    sentinel.next_->cancelEndOfTurn();
    hook.onEndOfTurn();
    ran = true;
  }
  return ran;
}

}  // namespace keel
