// SPDX-License-Identifier: Apache-2.0
//
// How the reactor keeps its promises.
//
// Stale events. epoll_wait(2) returns up to kEventsPerTurn events at once, and the first watcher
// may unwatch and close the descriptor of another, whose number the next accept(2) reuses. Each
// event therefore carries the descriptor's number and its generation, which unwatch() increments;
// an event of an earlier generation is skipped.
//
// Waking up. Under the lock, the thread marks itself asleep after it found no arrivals. The first
// arrival after that writes to the eventfd; while the thread is awake nobody writes anything. The
// eventfd is watched edge-triggered, which reports every write anew, so it never needs to be read.
//
// Starvation. What arrives from this thread's own blocks runs in further rounds of the same turn,
// so that one write per connection carries the outcome. After some rounds the turn ends all the
// same, and sockets and timers are served.
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

// Blocks between two readings of the clock. What one block does is bounded by the number of
// connections: some 100 ns for each subscriber of a name.
constexpr std::uint64_t kBlocksAtOnce = 16;
constexpr std::uint64_t kBlocksAtOnceContended = 4;

// Tag of the eventfd's events; no descriptor has this number.
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
    fairShare_.abandon();
    BlockBatch().swap(posts_);
    running_.swap(ready_);
    for (auto& queue : running_) std::exchange(queue, nullptr)->abandon();
    running_.clear();
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

void Reactor::post(Share& share, Block block) {
  KEEL_CHECK(block);
  const std::lock_guard lock(mutex_);
  share.arrivedPosts_.add(std::move(block));
  if (std::exchange(share.hasArrived_, true)) return;
  arrivedShares_.push_back(&share);
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
  // Ids of ended threads are reused.
  thread_.store(std::thread::id());
}

bool Reactor::turn(bool wait) {
  thread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  const bool dispatched = dispatchEvents(wait ? prepareToWait() : 0);
  const bool ranTimers = runDueTimers();
  collectArrivals();
  const bool served = fairShare_.serve();
  adaptReadBudget();
  return dispatched || ranTimers || served;
}

// Returns the timeout for epoll_wait(2) in milliseconds; -1 for none.
int Reactor::prepareToWait() {
  if (!ready_.empty() || !posts_.empty() || !fairShare_.isIdle()) return 0;
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

bool Reactor::dispatchEvents(int timeoutMilliseconds) {
  std::array<epoll_event, kEventsPerTurn> fetched;
  const int count = epoll_wait(epoll_.get(), fetched.data(), kEventsPerTurn, timeoutMilliseconds);
  asleep_.store(false, std::memory_order_relaxed);
  KEEL_CHECK(count >= 0 || errno == EINTR);
  bool dispatched = false;
  for (int i = 0; i < count; ++i) {
    const epoll_event event = fetched[static_cast<std::size_t>(i)];
    const std::uint64_t tag = event.data.u64;
    if (tag == kWakeUp) continue;
    const Registration registration = registrations_[static_cast<std::uint32_t>(tag)];
    if (registration.generation != tag >> 32) continue;
    // A rewatch() earlier in this turn counts.
    const std::uint32_t events = event.events & (registration.events | EPOLLERR | EPOLLHUP);
    if (events == 0) continue;
    registration.watcher->onReady(events);
    dispatched = true;
  }
  return dispatched;
}

void Reactor::noteRead(std::size_t bytes) {
  readBytes_ += bytes;
  if (readBytes_ >= readBudgetBytes_ && !budgetExhaustedAt_) budgetExhaustedAt_ = now_();
}

bool Reactor::hasEnoughBlocks() const {
  std::uint64_t count = 0;
  for (const auto& queue : ready_) count += queue->pendingCount();
  return count >= (fairShare_.isContended() ? kBlocksAtOnceContended : kBlocksAtOnce);
}

void Reactor::adaptReadBudget() {
  readBytes_ = 0;
  const auto exhaustedAt = std::exchange(budgetExhaustedAt_, std::nullopt);
  if (exhaustedAt && now_() - *exhaustedAt <= kLongTurn) {
    readBudgetBytes_ = std::min(readBudgetBytes_ * 2, kMaximumReadBudgetBytes);
  } else {
    readBudgetBytes_ = std::max(readBudgetBytes_ / 2, kMinimumReadBudgetBytes);
  }
}

bool Reactor::runDueTimers() {
  return !timers_.empty() && timers_.runDue(now_());
}

bool Reactor::runQueuedBlocks(int rounds) {
  bool ran = false;
  for (int round = 0; round < rounds; ++round) {
    collectArrivals();
    if (posts_.empty() && ready_.empty()) break;
    ran = true;
    posts_.run();
    running_.swap(ready_);
    for (auto& queue : running_) {
      // Released right after its batch.
      const auto current = std::move(queue);
      current->runBatch();
    }
    running_.clear();
  }
  return ran;
}

void Reactor::collectArrivals() {
  if (!arrived_.load(std::memory_order_relaxed)) return;
  const std::lock_guard lock(mutex_);
  posts_.append(arrivedPosts_);
  for (Share* share : arrivedShares_) {
    share->hasArrived_ = false;
    fairShare_.addPosts(*share, share->arrivedPosts_);
  }
  arrivedShares_.clear();
  ready_.insert(ready_.end(), std::move_iterator(arrivedQueues_.begin()),
                std::move_iterator(arrivedQueues_.end()));
  arrivedQueues_.clear();
  arrived_.store(false, std::memory_order_relaxed);
}

}  // namespace keel
