// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace keel {

class LinkList;

// Links its object into one of the lists of EndOfTurnHooks or FairShare, or into none.
class EndOfTurnLink {
 public:
  // Urgent hooks run first: an answer goes out before the fan-out it caused.
  enum class Urgency : std::uint8_t { normal, urgent };

  EndOfTurnLink() = default;
  EndOfTurnLink(const EndOfTurnLink&) = delete;
  EndOfTurnLink& operator=(const EndOfTurnLink&) = delete;

  bool isListed() const { return previous_ != nullptr; }

 protected:
  ~EndOfTurnLink() { cancelEndOfTurn(); }
  void cancelEndOfTurn() noexcept;

 private:
  friend class EndOfTurnHooks;
  friend class FairShare;
  friend class LinkList;

  static constexpr std::uint8_t kNoRound = 2;

  EndOfTurnLink* previous_ = nullptr;
  EndOfTurnLink* next_ = nullptr;
  Urgency urgency_ = Urgency::normal;
  std::uint8_t round_ = kNoRound;  // index into EndOfTurnHooks::rounds_
};

// Does work once at the end of the current turn of the reactor, such as flushing a connection.
// Destroying the hook, or calling cancelEndOfTurn(), removes it from its list.
class EndOfTurnHook : public EndOfTurnLink {
 public:
  // May register itself again, destroy itself and others, and cancel others.
  virtual void onEndOfTurn() = 0;

 protected:
  ~EndOfTurnHook() = default;
};

// Keeps links in the order in which they were appended. Owns none of them; destroying the list
// removes all.
class LinkList {
 public:
  LinkList() { sentinel_.previous_ = sentinel_.next_ = &sentinel_; }
  LinkList(const LinkList&) = delete;
  LinkList& operator=(const LinkList&) = delete;
  ~LinkList() {
    while (!empty()) front().cancelEndOfTurn();
  }

  bool empty() const { return sentinel_.next_ == &sentinel_; }
  EndOfTurnLink& front() { return *sentinel_.next_; }
  void append(EndOfTurnLink& link);
  // Moves all links of `other` to the front, in their order.
  void prepend(LinkList& other);

 private:
  // Both ends of a circular list.
  struct Sentinel final : EndOfTurnLink {};
  Sentinel sentinel_;
};

// Runs the hooks of the current turn. Owns none of them; registering allocates nothing. A hook
// registered while hooks run is left for the next run, so a run always ends.
class EndOfTurnHooks {
 public:
  EndOfTurnHooks() = default;
  EndOfTurnHooks(const EndOfTurnHooks&) = delete;
  EndOfTurnHooks& operator=(const EndOfTurnHooks&) = delete;

  // Adding a hook twice has no further effect, except that urgent wins over normal.
  void add(EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency);
  bool empty() const { return isEmpty(rounds_[0]) && isEmpty(rounds_[1]); }
  // Runs the urgent hooks, then the others, each in the order in which they were added. Returns
  // false if there were none.
  bool run();
  // Runs up to `count` hooks. Returns true if hooks of the same run are left; the next call runs
  // them first.
  bool runSome(std::size_t count);

 private:
  struct Round {
    LinkList urgent;
    LinkList normal;
  };

  static bool isEmpty(const Round& round) { return round.urgent.empty() && round.normal.empty(); }
  static void runFirst(LinkList& hooks);
  // Returns the round to run: the one that was interrupted, else the one that was collecting.
  Round& beginRun();

  // Collects hooks in one round while the other runs.
  Round rounds_[2];
  std::uint8_t collecting_ = 0;
};

}  // namespace keel
