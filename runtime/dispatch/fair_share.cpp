// SPDX-License-Identifier: Apache-2.0
//
// Fair share. Users are scheduled as a kernel schedules processes: the user with the smallest
// virtual time, which is the time of this thread that it has used, is served next, for one quantum.
// A user that was idle resumes at the present virtual time, so it cannot save up time; a user seen
// for the first time starts a quantum later, so fresh uids gain nothing either. A user that asks
// for little thus waits for one quantum of another, however many connections that other has.
//
// A quantum first flushes the pending output of the user's connections, then runs blocks that other
// threads have posted for the user, then takes input, connection by connection. Requests are queued
// as blocks, which run after every few so that the clock can be read: a member returns from
// takeInput() when enough are queued. Last, the quantum flushes the user's connections again. What
// it has sent to connections of other users is flushed in their quanta, and charged to them.
//
// With one user there is nothing to share. Then one turn serves everything that waits: all input,
// all blocks, all output, so that as much as possible is coalesced. Before a second user has been
// seen, the clock is not even read. Quanta begin when two users have input at once, or one has
// input while another's output is written, and go on for kContentionMemory. An attacker who floods
// the daemon is alone most of the time, since a quiet user's requests take no time: without that
// memory each of those requests would wait for a full turn that serves the attacker.
#include "runtime/dispatch/fair_share.h"

#include <algorithm>
#include <utility>

namespace keel {

namespace {

// Hooks, or posts of a user who is served alone, to run before the clock is read again.
constexpr std::size_t kHooksAtOnce = 8;
constexpr std::size_t kPostsAtOnce = 16;
// Hooks to run before the sockets are polled while one user is served alone: some 100 us.
constexpr std::size_t kHooksPerPoll = 64;

}  // namespace

void FairShare::addInput(Share& share, ShareMember& member) {
  if (member.isListed()) return;
  share.inputs_.append(member);
  makeRunnable(share);
}

void FairShare::addOutput(Share& share, EndOfTurnHook& hook, EndOfTurnHook::Urgency urgency) {
  share.outputs_.add(hook, urgency);
  makeRunnable(share);
}

void FairShare::addPosts(Share& share, BlockBatch& posts) {
  share.posts_.append(posts);
  makeRunnable(share);
}

void FairShare::makeRunnable(Share& share) {
  if (std::exchange(share.isRunnable_, true)) return;
  if (firstShare_ == nullptr) firstShare_ = &share;
  hasSeveralShares_ = hasSeveralShares_ || &share != firstShare_;
  share.virtualTime_ = std::max(share.virtualTime_, virtualNow_);
  if (std::exchange(share.isNew_, false)) share.virtualTime_ += kQuantum;
  push(share);
}

void FairShare::push(Share& share) {
  runnable_.push_back(&share);
  std::ranges::push_heap(runnable_, std::ranges::greater(), &Share::virtualTime_);
}

bool FairShare::serve() {
  if (hasSeveralShares_) updateContention();
  if (!isContended_ || runnable_.empty()) return serveAll();
  serveQuantum();
  return true;
}

void FairShare::updateContention() {
  const Clock::time_point now = now_();
  if (isContended_ && now >= contendedUntil_) isContended_ = false;
  const Share* const hog = now - hogEnd_ < kContentionMemory ? hog_ : nullptr;
  const Share* withInput = hog;
  for (const Share* share : runnable_) {
    if (!hasInput(*share) || share == withInput) continue;
    if (withInput != nullptr) {
      isContended_ = true;
      contendedUntil_ = now + kContentionMemory;
      return;
    }
    withInput = share;
  }
}

// ---- One user

bool FairShare::serveAll() {
  const auto begin = hasSeveralShares_ ? std::optional(now_()) : std::nullopt;
  serving_.swap(runnable_);
  for (Share* share : serving_) share->isRunnable_ = false;
  for (Share* share : serving_) {
    LinkList members;
    members.prepend(share->inputs_);
    while (!members.empty() && host_.mayReadMore())
      takeInputOf(static_cast<ShareMember&>(members.front()), std::nullopt);
    share->inputs_.prepend(members);
    while (share->posts_.runSome(kPostsAtOnce) && (!begin || now_() - *begin < kQuantum)) {
    }
  }
  const bool ranBlocks = host_.runQueuedBlocks(kRoundsAlone);
  const bool served = !serving_.empty() || !runnable_.empty();
  writeAll();
  if (begin && serving_.size() == 1) {
    const Clock::time_point end = now_();
    charge(*serving_.front(), end - *begin);
    if (end - *begin > kQuantum) {
      hog_ = serving_.front();
      hogEnd_ = end;
    }
  }
  dropIdle();
  return served || ranBlocks;
}

// Writes the output of users with input first: answers go out before the fan-out they caused.
void FairShare::writeAll() {
  ++turn_;
  for (std::size_t i = 0; i < serving_.size(); ++i) {
    if (!writeOutputOf(*serving_[i])) return;
  }
  for (std::size_t i = 0; i < runnable_.size(); ++i) {
    if (!writeOutputOf(*runnable_[i])) return;
  }
}

bool FairShare::writeOutputOf(Share& share) {
  if (std::exchange(share.lastTurn_, turn_) == turn_) return true;
  if (!hasSeveralShares_) {
    share.outputs_.run();
    return true;
  }
  while (share.outputs_.runSome(kHooksPerPoll)) {
    host_.pollInput();
    const auto hasOther = [&](const Share* other) { return other != &share && hasInput(*other); };
    if (std::ranges::any_of(runnable_, hasOther)) {
      isContended_ = true;
      contendedUntil_ = now_() + kContentionMemory;
      return false;
    }
  }
  return true;
}

void FairShare::dropIdle() {
  for (Share* share : serving_) {
    if (share->hasWork()) makeRunnable(*share);
  }
  serving_.clear();
  std::erase_if(runnable_, [](Share* share) {
    share->isRunnable_ = share->hasWork();
    return !share->isRunnable_;
  });
  std::ranges::make_heap(runnable_, std::ranges::greater(), &Share::virtualTime_);
}

void FairShare::takeInputOf(ShareMember& member, std::optional<Clock::time_point> deadline) {
  const std::shared_ptr<void> alive = member.holdAlive();
  member.cancelEndOfTurn();
  while (member.takeInput()) {
    host_.runQueuedBlocks(1);
    if (deadline && now_() >= *deadline) return member.suspendInput();
  }
}

// ---- Several users

void FairShare::serveQuantum() {
  std::ranges::pop_heap(runnable_, std::ranges::greater(), &Share::virtualTime_);
  Share& share = *runnable_.back();
  runnable_.pop_back();

  const Clock::time_point begin = now_();
  const Clock::time_point deadline = begin + kQuantum;
  const auto inTime = [&] { return now_() < deadline; };
  const auto write = [&] {
    while (share.outputs_.runSome(kHooksAtOnce) && inTime()) {
    }
  };
  write();
  // One by one: a post may be a large message.
  while (share.posts_.runSome(1) && inTime()) {
  }
  while (!share.inputs_.empty() && inTime()) {
    takeInputOf(static_cast<ShareMember&>(share.inputs_.front()), deadline);
    host_.runQueuedBlocks(kRoundsInQuantum);
  }
  host_.runQueuedBlocks(kRoundsInQuantum);
  if (inTime()) write();

  charge(share, now_() - begin);
  share.isRunnable_ = share.hasWork();
  if (share.isRunnable_) push(share);
}

void FairShare::charge(Share& share, std::chrono::nanoseconds used) {
  virtualNow_ = std::max(virtualNow_, share.virtualTime_);
  share.virtualTime_ += used;
}

void FairShare::abandon() {
  while (!runnable_.empty()) {
    Share& share = *runnable_.back();
    runnable_.pop_back();
    share.isRunnable_ = false;
    BlockBatch().swap(share.posts_);
  }
}

}  // namespace keel
