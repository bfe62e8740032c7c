// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "runtime/dispatch/block_batch.h"
#include "runtime/dispatch/end_of_turn_hook.h"

namespace keel {

// Takes input on behalf of one user, and flushes output at the end of a turn: a connection. It is
// in at most one list of its share, which it leaves when it is destroyed.
class ShareMember : public EndOfTurnHook {
 public:
  // Reads once, within the read budget, and queues the requests as blocks. Returns true if it
  // stopped because enough blocks are queued: it is called again once they have run.
  virtual bool takeInput() = 0;
  // Ends the input that takeInput() has begun, when time is up.
  virtual void suspendInput() = 0;
  // Keeps the member alive while its input is taken.
  virtual std::shared_ptr<void> holdAlive() = 0;

 protected:
  ~ShareMember() = default;
};

// Holds the work that waits for one user, and the time of the I/O thread that the user has used.
// Lives on the reactor's thread, and outlives the reactor.
class Share {
 public:
  Share() = default;
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

 private:
  friend class FairShare;
  friend class Reactor;

  bool hasWork() const { return !inputs_.empty() || !outputs_.empty() || !posts_.empty(); }

  LinkList inputs_;         // members with input, round-robin
  EndOfTurnHooks outputs_;  // members with output
  BlockBatch posts_;
  std::chrono::nanoseconds virtualTime_{0};
  bool isRunnable_ = false;  // in FairShare::runnable_, or being served
  bool isNew_ = true;
  std::uint64_t lastTurn_ = 0;  // in which serveAll() wrote its output
  BlockBatch arrivedPosts_;     // under the reactor's mutex
  bool hasArrived_ = false;     // in the reactor's arrivedShares_; under its mutex
};

// Divides the time of the I/O thread among users (fair_share.cpp explains how). Lives on the
// reactor's thread.
class FairShare {
 public:
  using Clock = std::chrono::steady_clock;

  // Does what concerns no single share: the reactor.
  class Host {
   public:
    // Runs the queued blocks, then those that they queue, up to `rounds` rounds in all. Returns
    // false if there were none.
    virtual bool runQueuedBlocks(int rounds) = 0;
    // Polls the sockets without waiting, which adds members with new input.
    virtual void pollInput() = 0;
    // Returns true while members may read more in this turn.
    virtual bool mayReadMore() const = 0;

   protected:
    ~Host() = default;
  };

  // Bounds how long one user is served while others wait: long enough that switching costs little,
  // short enough that nobody notices the wait.
  static constexpr std::chrono::microseconds kQuantum{100};
  // Users count as competing for this long after they last did. Meanwhile they are served by quanta
  // even if no other happens to wait at this moment.
  static constexpr std::chrono::milliseconds kContentionMemory{100};
  // Rounds of blocks in a turn, see Host::runQueuedBlocks().
  static constexpr int kRoundsAlone = 16;
  static constexpr int kRoundsInQuantum = 2;

  FairShare(const std::function<Clock::time_point()>& now, Host& host) : now_(now), host_(host) {}
  FairShare(const FairShare&) = delete;
  FairShare& operator=(const FairShare&) = delete;

  // Has a later call of serve() take the input of `member` once. No effect on a member whose output
  // waits: that is written first, and the member then adds its input.
  void addInput(Share& share, ShareMember& member);
  void addOutput(Share& share, EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency);
  void addPosts(Share& share, BlockBatch& posts);

  bool isIdle() const { return runnable_.empty(); }
  // Returns true while several users compete; members then take input in small pieces.
  bool isContended() const { return isContended_; }

  // Serves one quantum of the user with the smallest virtual time while users compete, else
  // everything that waits. Runs the queued blocks in either case. Returns false if there was
  // nothing to do.
  bool serve();

  // Drops all posts; called by the reactor's destructor.
  void abandon();

 private:
  void makeRunnable(Share& share);
  void push(Share& share);
  void charge(Share& share, std::chrono::nanoseconds used);
  void updateContention();
  bool hasInput(const Share& share) const {
    return !share.inputs_.empty() || !share.posts_.empty();
  }

  bool serveAll();
  void writeAll();
  // Returns false if another user's input interrupted it.
  bool writeOutputOf(Share& share);
  void dropIdle();

  void serveQuantum();
  void takeInputOf(ShareMember& member, std::optional<Clock::time_point> deadline);

  const std::function<Clock::time_point()>& now_;
  Host& host_;
  std::vector<Share*> runnable_;  // a heap, the smallest virtual time first
  std::vector<Share*> serving_;   // by serveAll()
  std::chrono::nanoseconds virtualNow_{0};
  std::uint64_t turn_ = 0;

  bool isContended_ = false;
  Clock::time_point contendedUntil_{};
  const Share* firstShare_ = nullptr;
  bool hasSeveralShares_ = false;
  // The last user who was served alone for longer than a quantum, and when that ended.
  const Share* hog_ = nullptr;
  Clock::time_point hogEnd_{};
};

}  // namespace keel
