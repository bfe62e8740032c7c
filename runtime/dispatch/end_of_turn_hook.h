// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace keel {

class EndOfTurnHooks;

// A link of one of the lists of EndOfTurnHooks, or of none.
class EndOfTurnLink {
 public:
  // Urgent hooks run first: an answer goes out before the fan-out it caused.
  enum class Urgency : std::uint8_t { normal, urgent };

  EndOfTurnLink() = default;
  EndOfTurnLink(const EndOfTurnLink&) = delete;
  EndOfTurnLink& operator=(const EndOfTurnLink&) = delete;

 protected:
  ~EndOfTurnLink() { cancelEndOfTurn(); }
  void cancelEndOfTurn() noexcept;

 private:
  friend class EndOfTurnHooks;
  bool listed() const { return previous_ != nullptr; }

  EndOfTurnLink* previous_ = nullptr;
  EndOfTurnLink* next_ = nullptr;
  Urgency urgency_ = Urgency::normal;
  std::uint8_t round_ = 0;  // index into EndOfTurnHooks::rounds_
};

// Work to be done once at the end of the current turn of the reactor, such as flushing a
// connection. Destroying the hook, or calling cancelEndOfTurn(), takes it off the list.
class EndOfTurnHook : public EndOfTurnLink {
 public:
  // May register itself again, destroy itself and others, and cancel others.
  virtual void onEndOfTurn() = 0;

 protected:
  ~EndOfTurnHook() = default;
};

// The hooks of the current turn. Owns none of them; registering allocates nothing. A hook
// registered while hooks run is left for the next run, so a run always ends.
class EndOfTurnHooks {
 public:
  EndOfTurnHooks();
  EndOfTurnHooks(const EndOfTurnHooks&) = delete;
  EndOfTurnHooks& operator=(const EndOfTurnHooks&) = delete;
  // Takes all hooks off.
  ~EndOfTurnHooks();

  // Adding a hook twice has no further effect, except that urgent wins over normal.
  void add(EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency);
  // Returns true if the next run has nothing to do.
  bool empty() const;
  // Runs the urgent hooks, then the others, each in the order in which they were added. Returns
  // false if there were none.
  bool run();

 private:
  // Both ends of a circular list.
  struct Sentinel final : EndOfTurnLink {};
  struct Round {
    Sentinel urgent;
    Sentinel normal;
  };

  static void append(EndOfTurnLink& sentinel, EndOfTurnLink& hook);
  static bool runAll(EndOfTurnLink& sentinel);

  // Collects hooks in one round while the other runs.
  Round rounds_[2];
  std::uint8_t collecting_ = 0;
};

}  // namespace keel
