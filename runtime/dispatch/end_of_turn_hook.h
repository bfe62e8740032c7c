// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace keel {

class EndOfTurnHooks;

// A place in one of the lists of EndOfTurnHooks, or in none.
class EndOfTurnLink {
 public:
  // Urgent ones are told first: an answer goes out before the fan-out it caused.
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
  std::uint8_t round_ = 0;  // of EndOfTurnHooks
};

// Something to be told once when the current turn of the reactor ends: a connection that has bytes
// to write. Destroying it, or calling cancelEndOfTurn(), takes it off the list.
class EndOfTurnHook : public EndOfTurnLink {
 public:
  // May ask again, destroy itself and others, and take others off the list.
  virtual void onEndOfTurn() = 0;

 protected:
  ~EndOfTurnHook() = default;
};

// Those who asked to be told. It owns none of them, and being listed allocates nothing. Those who
// ask while others are being told are told the next time, so that telling always ends.
class EndOfTurnHooks {
 public:
  EndOfTurnHooks();
  EndOfTurnHooks(const EndOfTurnHooks&) = delete;
  EndOfTurnHooks& operator=(const EndOfTurnHooks&) = delete;
  // Forgets those who are listed.
  ~EndOfTurnHooks();

  // Adding one twice is the same as once; urgent wins.
  void add(EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency);
  // Whether nobody is to be told the next time.
  bool empty() const;
  // Tells the urgent ones, then the others, each in the order of the adding. Returns whether there
  // were any.
  bool tell();

 private:
  // Both ends of a circular list.
  struct Sentinel final : EndOfTurnLink {};
  struct Round {
    Sentinel urgent;
    Sentinel normal;
  };

  static void append(EndOfTurnLink& sentinel, EndOfTurnLink& hook);
  static bool tellAll(EndOfTurnLink& sentinel);

  // One round collects while the other is being told.
  Round rounds_[2];
  std::uint8_t collecting_ = 0;
};

}  // namespace keel
