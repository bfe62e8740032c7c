// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "runtime/dispatch/block.h"
#include "runtime/dispatch/block_batch.h"
#include "runtime/dispatch/end_of_turn_hook.h"
#include "runtime/dispatch/executor.h"
#include "runtime/dispatch/fair_share.h"
#include "runtime/dispatch/timer_list.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

// The event loop of the I/O thread: sockets through epoll(7), serial queues, timers. One turn waits
// for events, dispatches them to watchers, runs due timers, has connections take their input, runs
// the queues that have work, then the end-of-turn hooks. An idle daemon thus answers immediately,
// and a busy one coalesces its writes without a timer. While several users compete, a turn serves
// one quantum of one of them (FairShare).
//
// schedule(), post(), stop() and isCurrent() may be called from any thread; everything else belongs
// on the thread that runs the reactor, or happens before it runs.
class Reactor final : public Executor, private FairShare::Host {
 public:
  using Clock = std::chrono::steady_clock;

  // Receives readiness events of a descriptor. Never owned by the reactor.
  class Watcher {
   public:
    // `events` as epoll_wait(2) returns them: those watched for, and EPOLLERR and EPOLLHUP in any
    // case. The watcher may unwatch and destroy itself and others in here.
    virtual void onReady(std::uint32_t events) = 0;

   protected:
    ~Watcher() = default;
  };

  using TimerId = TimerList::Id;  // never 0

  // Tests pass a clock that they advance by hand.
  explicit Reactor(std::function<Clock::time_point()> now = &Clock::now);
  // Destroys blocks, queues and timers that did not run. The reactor must not be running.
  ~Reactor() override;
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  // Level-triggered, unless `events` has EPOLLET. `descriptor` is borrowed and has one watcher at a
  // time; unwatch it before closing it. A watcher of several descriptors cannot tell their events
  // apart: use one per descriptor where that matters.
  void watch(int descriptor, std::uint32_t events, Watcher& watcher);
  // Changes the events that `watcher` receives.
  void rewatch(int descriptor, std::uint32_t events, Watcher& watcher);
  // Stops the events of this descriptor, even those already fetched in this turn.
  void unwatch(int descriptor, Watcher& watcher);

  // Runs `block` once on the reactor's thread, after `delay`.
  TimerId after(Clock::duration delay, Block block);
  // Has no effect on a timer that has run or was cancelled.
  void cancel(TimerId timer);

  // Returns the share of work that is done for no particular user. Shares are borrowed for as long
  // as the reactor lives.
  Share& ownShare() { return ownShare_; }

  // Has `member` take its input once, when its user is next served.
  void addInput(Share& share, ShareMember& member) { fairShare_.addInput(share, member); }
  // Runs `hook` once at the end of this turn, or of the next one that serves its user. Idempotent,
  // except that urgent wins over normal. A hook registered while hooks run is left for the end of
  // the next turn, which then does not wait.
  void atEndOfTurn(Share& share, EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency) {
    fairShare_.addOutput(share, hook, urgency);
  }

  void schedule(std::shared_ptr<SerialQueue> queue) override;
  // Runs `block` on the reactor's thread, in the order of the calls, never from within this call.
  // From any thread.
  void post(Block block);
  // Runs `block` likewise, when that user is next served.
  void post(Share& share, Block block);
  // Returns true on the thread that runs the reactor or last called turn().
  bool isCurrent() const {
    return thread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }

  // Runs turns until stop(); returns immediately if stop() was called since the last run.
  void run();
  // From any thread.
  void stop();
  // Returns an upper bound of what a member should read now. A budget bounds what all members read
  // in one turn. It doubles after a short turn that exhausted it, and halves after any other: a
  // long turn did much work for few bytes, and made all other peers wait.
  std::size_t readBudgetBytes() const {
    if (fairShare_.isContended()) return kContendedReadBytes;
    return readBytes_ < readBudgetBytes_ ? readBudgetBytes_ - readBytes_ : kContendedReadBytes;
  }
  // Notes what a member has read. Call it before processing it: the time from the exhaustion of the
  // budget to the end of the turn decides.
  void noteRead(std::size_t bytes);
  // Returns true while several users compete.
  bool isContended() const { return fairShare_.isContended(); }
  // Returns true if as many blocks are queued as may run before the clock is read.
  bool hasEnoughBlocks() const;
  static constexpr std::size_t kMaximumReadBudgetBytes = 256u << 10;
  // A hundred small messages. A larger minimum would delay the first answers to a client that has
  // sent many. A smaller one would cost system calls: a turn flushes once per subscriber, however
  // little was read.
  static constexpr std::size_t kMinimumReadBudgetBytes = 16u << 10;
  // The budget grows only if processing a full read, and the rest of that turn, took no longer: a
  // delay that nobody notices.
  static constexpr std::chrono::milliseconds kLongTurn{2};
  // Upper bound of one read while users compete.
  static constexpr std::size_t kContendedReadBytes = 4u << 10;

  // Runs one turn on the calling thread, which becomes the reactor's. `wait`: blocks until there is
  // something to do. Returns true if anything was done.
  bool turn(bool wait);

 private:
  struct Registration {
    Watcher* watcher = nullptr;
    std::uint32_t events = 0;
    std::uint32_t generation = 0;  // how many watchers this descriptor number had before
  };

  Registration& registrationOf(int descriptor, const Watcher& watcher);
  void control(int operation, int descriptor, const Registration& registration);

  // The phases of a turn.
  int prepareToWait();
  bool dispatchEvents(int timeoutMilliseconds);
  bool runDueTimers();
  void adaptReadBudget();

  // FairShare::Host.
  bool runQueuedBlocks(int rounds) override;
  void pollInput() override { dispatchEvents(0); }
  bool mayReadMore() const override { return readBytes_ < readBudgetBytes_; }

  void collectArrivals();
  void wakeUp();

  const FileDescriptor epoll_;
  const FileDescriptor wakeUps_;
  const std::function<Clock::time_point()> now_;
  std::atomic<std::thread::id> thread_{};
  std::atomic<bool> stopped_{false};

  std::size_t readBudgetBytes_ = kMinimumReadBudgetBytes;
  std::size_t readBytes_ = 0;                           // in this turn
  std::optional<Clock::time_point> budgetExhaustedAt_;  // first time in this turn
  std::vector<Registration> registrations_;             // by descriptor
  TimerList timers_;
  Share ownShare_;
  FairShare fairShare_{now_, *this};
  std::vector<std::shared_ptr<SerialQueue>> ready_;    // queues with a batch to run
  std::vector<std::shared_ptr<SerialQueue>> running_;  // queues of the current round
  BlockBatch posts_;                                   // of the current round

  // Submissions of other threads, and all posts.
  std::mutex mutex_;
  BlockBatch arrivedPosts_;                                  // under mutex_
  std::vector<std::shared_ptr<SerialQueue>> arrivedQueues_;  // under mutex_
  std::vector<Share*> arrivedShares_;                        // with posts; under mutex_
  std::atomic<bool> arrived_{false};  // either is not empty; changed under mutex_
  std::atomic<bool> asleep_{false};   // an arrival must wake the thread; set under mutex_
};

}  // namespace keel
