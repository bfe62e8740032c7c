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
#include "runtime/dispatch/timer_list.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

// The event loop of the I/O thread: sockets through epoll(7), serial queues, timers. One turn is:
// wait for events, tell the watchers, run the queues that have work, then tell everybody who asked
// for the end of the turn. An idle daemon thus answers at once, and a busy one coalesces its writes
// by itself.
//
// Except for schedule(), post() and stop(), everything is called on the thread that runs the
// reactor, or before it runs.
class Reactor final : public Executor {
 public:
  using Clock = std::chrono::steady_clock;

  // Whoever wants to hear of a descriptor's readiness. Never owned by the reactor.
  class Watcher {
   public:
    // `events` as epoll_wait(2) gives them: what is watched for, and EPOLLERR and EPOLLHUP in any
    // case. The watcher may unwatch and destroy itself, and others, in here.
    virtual void onReady(std::uint32_t events) = 0;

   protected:
    ~Watcher() = default;
  };

  using TimerId = TimerList::Id;  // never 0

  // Tests pass a clock that they move by hand.
  explicit Reactor(std::function<Clock::time_point()> now = &Clock::now);
  // Drops the blocks, turns and timers that did not run. Nobody runs it any more.
  ~Reactor() override;
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  // Level-triggered. `descriptor` is borrowed, and watched by one watcher only; unwatch it before
  // closing it. A watcher of several descriptors is told of each, but not of which: use one per
  // descriptor where that matters.
  void watch(int descriptor, std::uint32_t events, Watcher& watcher);
  // Changes what `watcher` is told of.
  void rewatch(int descriptor, std::uint32_t events, Watcher& watcher);
  // Afterwards `watcher` hears nothing more of this descriptor, not even of events of the current
  // turn.
  void unwatch(int descriptor, Watcher& watcher);

  // Runs `block` once on the reactor's thread, after `delay`.
  TimerId after(Clock::duration delay, Block block);
  // Does nothing for a timer that has run or was cancelled.
  void cancel(TimerId timer);

  // Tells `hook` once when this turn ends. Asking twice is the same as once; urgent wins. Asked
  // while the end of a turn is being told, it is told at the end of the next, which then does not
  // wait.
  void atEndOfTurn(EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency);

  void schedule(std::shared_ptr<SerialQueue> queue) override;
  // Runs `block` on the reactor's thread, in the order of the calls, never from within this call.
  // From any thread.
  void post(Block block);
  // True on the thread that runs the reactor (or, when nobody runs it yet, on none).
  bool isCurrent() const {
    return thread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }

  // Runs turns until stop(); not at all when stop() was called since the last run.
  void run();
  // From any thread.
  void stop();
  // How many bytes a watcher should read from its descriptor in one turn, at most. More while there
  // is more to read and turns are short; when they take long, somebody asks for much with few
  // bytes, and everybody else waits until it is done.
  std::size_t fairReadBytes() const { return fairReadBytes_; }
  // A watcher read that much, and there may be more. To be said before it does anything with what
  // it read.
  void noteFullRead() {
    if (!firstFullRead_) firstFullRead_ = now_();
  }
  static constexpr std::size_t kMostReadBytes = 256u << 10;
  // A hundred small messages. With more, a client that has sent many would wait for the first
  // answers longer than it needs to. With fewer there would be more system calls: what a turn
  // writes to a crowd of subscribers costs one for each of them, however little was read.
  static constexpr std::size_t kLeastReadBytes = 16u << 10;
  // What was done with a full read, and after it in the same turn, must not take longer if more is
  // to be read. Nobody notices so short a wait.
  static constexpr std::chrono::milliseconds kLongTurn{2};

  // One turn by hand, on the calling thread, which becomes the reactor's. `wait` says whether to
  // wait for something to do. Returns whether anything was done.
  bool turn(bool wait);

 private:
  struct Registration {
    Watcher* watcher = nullptr;
    std::uint32_t events = 0;
    std::uint32_t generation = 0;  // of this descriptor number: how many watchers it had before
  };

  Registration& registrationOf(int descriptor, const Watcher& watcher);
  void control(int operation, int descriptor, const Registration& registration);

  // The parts of a turn.
  int prepareToWait();
  bool tellWatchers(int timeoutMilliseconds);
  bool runDueTimers();
  bool runBlocks();
  void adaptReadBytes();

  void collectArrivals();
  void wakeUp();

  const FileDescriptor epoll_;
  const FileDescriptor wakeUps_;
  const std::function<Clock::time_point()> now_;
  std::atomic<std::thread::id> thread_{};
  std::atomic<bool> stopped_{false};

  std::size_t fairReadBytes_ = kLeastReadBytes;
  std::optional<Clock::time_point> firstFullRead_;  // of this turn
  std::vector<Registration> registrations_;         // by descriptor
  TimerList timers_;
  EndOfTurnHooks endOfTurn_;
  std::vector<std::shared_ptr<SerialQueue>> ready_;  // have a turn to run
  std::vector<std::shared_ptr<SerialQueue>> turns_;  // of the current round
  BlockBatch posts_;                                 // of the current round

  // What arrives from other threads, and all that is posted.
  std::mutex mutex_;
  BlockBatch arrivedPosts_;                                  // under mutex_
  std::vector<std::shared_ptr<SerialQueue>> arrivedQueues_;  // under mutex_
  std::atomic<bool> arrived_{false};  // changed under mutex_: one of the two is not empty
  std::atomic<bool> asleep_{false};   // set under mutex_: an arrival must wake the thread up
};

}  // namespace keel
