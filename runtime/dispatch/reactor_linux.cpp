// SPDX-License-Identifier: Apache-2.0
//
// How the reactor keeps its promises:
//
// Stale events. epoll_wait(2) hands out up to kEventsPerTurn events at once, and the first watcher
// that is told may unwatch and close the descriptor of another, whose number the next accept(2)
// gives to a third. Each event therefore carries the descriptor's number and its generation, which
// unwatch() changes; an event of an earlier generation is passed over.
//
// Waking up. The thread says under the lock that it is going to sleep, after it found that nothing
// has arrived. Whoever adds an arrival then writes to the eventfd, the first one only; while the
// thread is awake nobody writes anything. The eventfd is watched edge-triggered, which reports
// every write anew, so it never needs to be read.
//
// Starvation. What arrives from this thread's own blocks is run in further rounds of the same turn,
// so that one write per connection carries the outcome; after kRoundsPerTurn rounds the turn ends
// nevertheless, and sockets and timers get theirs.
#include "runtime/dispatch/reactor.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <iterator>
#include <utility>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/check.h"

namespace keel {

namespace {

constexpr int kEventsPerTurn = 256;
constexpr int kRoundsPerTurn = 16;

// What the eventfd's events carry; no descriptor has this number.
constexpr std::uint64_t kWakeUp = ~std::uint64_t{0};

}  // namespace

Reactor::Reactor(std::function<Clock::time_point()> now)
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      wakeUps_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      now_(std::move(now)) {
  KEEL_CHECK(epoll_ && wakeUps_);
  epoll_event event{.events = EPOLLIN | EPOLLET, .data = {.u64 = kWakeUp}};
  KEEL_CHECK(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wakeUps_.get(), &event) == 0);
}

Reactor::~Reactor() {
  // The destruction of a block may post, schedule and set timers.
  while (arrived_.load() || !ready_.empty() || !timers_.empty()) {
    collectArrivals();
    BlockBatch().swap(posts_);
    turns_.swap(ready_);
    for (auto& queue : turns_) std::exchange(queue, nullptr)->abandon();
    turns_.clear();
    timers_.clear();
  }
}

void Reactor::watch(int descriptor, std::uint32_t events, Watcher& watcher) {
  KEEL_CHECK(descriptor >= 0);
  const auto index = static_cast<std::size_t>(descriptor);
  if (index >= registrations_.size()) registrations_.resize(index + 1);
  Registration& registration = registrations_[index];
  KEEL_CHECK(registration.watcher == nullptr);
  registration.watcher = &watcher;
  registration.events = events;
  control(EPOLL_CTL_ADD, descriptor, registration);
}

void Reactor::rewatch(int descriptor, std::uint32_t events, Watcher& watcher) {
  Registration& registration = registrationOf(descriptor, watcher);
  registration.events = events;
  control(EPOLL_CTL_MOD, descriptor, registration);
}

void Reactor::unwatch(int descriptor, Watcher& watcher) {
  Registration& registration = registrationOf(descriptor, watcher);
  control(EPOLL_CTL_DEL, descriptor, registration);
  registration.watcher = nullptr;
  ++registration.generation;
}

Reactor::Registration& Reactor::registrationOf(int descriptor, const Watcher& watcher) {
  const auto index = static_cast<std::size_t>(descriptor);
  KEEL_CHECK(descriptor >= 0 && index < registrations_.size() &&
             registrations_[index].watcher == &watcher);
  return registrations_[index];
}

void Reactor::control(int operation, int descriptor, const Registration& registration) {
  const std::uint64_t tag =
      std::uint64_t{registration.generation} << 32 | static_cast<std::uint32_t>(descriptor);
  epoll_event event{.events = registration.events, .data = {.u64 = tag}};
  KEEL_CHECK(epoll_ctl(epoll_.get(), operation, descriptor, &event) == 0);
}

Reactor::TimerId Reactor::after(Clock::duration delay, Block block) {
  return timers_.add(now_() + std::max(delay, Clock::duration::zero()), std::move(block));
}

void Reactor::cancel(TimerId timer) {
  timers_.cancel(timer);
}

void Reactor::atEndOfTurn(EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency) {
  endOfTurn_.add(hook, urgency);
}

void Reactor::schedule(std::shared_ptr<SerialQueue> queue) {
  if (isCurrent()) {
    ready_.push_back(std::move(queue));
    return;
  }
  const std::lock_guard lock(mutex_);
  arrivedQueues_.push_back(std::move(queue));
  arrived_.store(true, std::memory_order_relaxed);
  wakeUp();
}

void Reactor::post(Block block) {
  KEEL_CHECK(block);
  const std::lock_guard lock(mutex_);
  arrivedPosts_.add(std::move(block));
  arrived_.store(true, std::memory_order_relaxed);
  wakeUp();
}

void Reactor::stop() {
  stopped_.store(true);
  const std::lock_guard lock(mutex_);
  wakeUp();
}

// Under mutex_. The reactor's own thread never finds itself asleep.
void Reactor::wakeUp() {
  if (!asleep_.exchange(false, std::memory_order_relaxed)) return;
  const std::uint64_t one = 1;
  KEEL_CHECK(write(wakeUps_.get(), &one, sizeof one) == sizeof one);
}

void Reactor::run() {
  while (!stopped_.load(std::memory_order_relaxed)) turn(/*wait=*/true);
  stopped_.store(false);
  // The number of a thread that has ended is given to another one.
  thread_.store(std::thread::id());
}

bool Reactor::turn(bool wait) {
  thread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  const bool told = tellWatchers(wait ? prepareToWait() : 0);
  const bool ranTimers = runDueTimers();
  const bool ranBlocks = runBlocks();
  const bool toldEnd = endOfTurn_.tell();
  adaptReadBytes();
  return told || ranTimers || ranBlocks || toldEnd;
}

// The timeout for epoll_wait(2), in milliseconds; -1 means none.
int Reactor::prepareToWait() {
  if (!ready_.empty() || !endOfTurn_.empty()) return 0;
  int timeout = -1;
  if (const auto due = timers_.nextDue()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - now_()).count();
    if (left <= 0) return 0;
    timeout = static_cast<int>(std::min<std::int64_t>(left, INT_MAX));
  }
  const std::lock_guard lock(mutex_);
  if (arrived_.load(std::memory_order_relaxed) || stopped_.load(std::memory_order_relaxed))
    return 0;
  asleep_.store(true, std::memory_order_relaxed);
  return timeout;
}

bool Reactor::tellWatchers(int timeoutMilliseconds) {
  std::array<epoll_event, kEventsPerTurn> fetched;
  const int count = epoll_wait(epoll_.get(), fetched.data(), kEventsPerTurn, timeoutMilliseconds);
  asleep_.store(false, std::memory_order_relaxed);
  KEEL_CHECK(count >= 0 || errno == EINTR);
  bool told = false;
  for (int i = 0; i < count; ++i) {
    const epoll_event event = fetched[static_cast<std::size_t>(i)];
    const std::uint64_t tag = event.data.u64;
    if (tag == kWakeUp) continue;
    const Registration registration = registrations_[static_cast<std::uint32_t>(tag)];
    if (registration.generation != tag >> 32) continue;
    // A rewatch() of this turn counts too.
    const std::uint32_t events = event.events & (registration.events | EPOLLERR | EPOLLHUP);
    if (events == 0) continue;
    registration.watcher->onReady(events);
    told = true;
  }
  return told;
}

void Reactor::adaptReadBytes() {
  const auto fullRead = std::exchange(firstFullRead_, std::nullopt);
  if (fullRead && now_() - *fullRead <= kLongTurn) {
    fairReadBytes_ = std::min(fairReadBytes_ * 2, kMostReadBytes);
  } else {
    fairReadBytes_ = std::max(fairReadBytes_ / 2, kLeastReadBytes);
  }
}

bool Reactor::runDueTimers() {
  return !timers_.empty() && timers_.runDue(now_());
}

bool Reactor::runBlocks() {
  bool ran = false;
  for (int round = 0; round < kRoundsPerTurn; ++round) {
    collectArrivals();
    if (posts_.empty() && ready_.empty()) break;
    ran = true;
    posts_.run();
    turns_.swap(ready_);
    for (auto& queue : turns_) {
      // Released right after its turn.
      const auto running = std::move(queue);
      running->runTurn();
    }
    turns_.clear();
  }
  return ran;
}

void Reactor::collectArrivals() {
  if (!arrived_.load(std::memory_order_relaxed)) return;
  const std::lock_guard lock(mutex_);
  posts_.swap(arrivedPosts_);
  ready_.insert(ready_.end(), std::move_iterator(arrivedQueues_.begin()),
                std::move_iterator(arrivedQueues_.end()));
  arrivedQueues_.clear();
  arrived_.store(false, std::memory_order_relaxed);
}

}  // namespace keel
