// SPDX-License-Identifier: Apache-2.0
//
// How an answer that is written in steps shows one moment:
//
// - Each dump has a number, and each item the number of the last dump it was captured for. An item
//   with a smaller number is missing in that dump's answer. Capturing an item captures it for all
//   dumps that lack it, so one number is enough however many dumps are in progress.
// - An item is captured when the walk reaches it, or before it changes or leaves the table if that
//   is earlier. An item that enters the table gets the last number, and so is missing nowhere.
//   While no dump is in progress all a change costs is one comparison.
// - A subscription changes with its item: callers notify the item before they add, remove or
//   deliver.
// - A connection that ends changes the text of its items and subscriptions without touching them.
//   So the answers keep the descriptions of connections that end meanwhile, and of those that had
//   ended but still existed when the dump began.
// - The walk over the items, which all dumps share, starts over when the first dump is answered;
//   what it then passes over has been captured already. It ends with the last missing entry, not
//   with the last item.
#include "notify/dump_coordinator.h"

#include <algorithm>
#include <utility>

#include "notify/dump_answer.h"
#include "notify/incremental_work_queue.h"
#include "notify/published_object.h"
#include "runtime/foundation/check.h"
#include "runtime/xpc/connection.h"

namespace keel {

namespace {

constexpr std::size_t kBytesPerWork = std::size_t{2} << 10;

// Items that the walk passes over in the time in which it captures one.
constexpr std::size_t kPassedOverPerWork = 8;

std::size_t subscriberCountOf(KLNPublishedObject& item) {
  return item.subscribers() != nullptr ? item.subscribers()->count() : 0;
}

}  // namespace

struct DumpCoordinator::Dump {
  std::uint64_t number;
  std::weak_ptr<xpc::Connection> asker;
  DumpAnswer answer;
  Reply reply;
};

DumpCoordinator::DumpCoordinator(std::shared_ptr<IncrementalWorkQueue> incremental)
    : incremental_(std::move(incremental)) {}

DumpCoordinator::~DumpCoordinator() {
  dumps_.clear();
  while (first_ != nullptr) leave(*first_);
}

void DumpCoordinator::enter(KLNPublishedObject& item) {
  KLNPublishedObject::DumpEntry& entry = item.dumpEntry_;
  if (entry.coordinator != nullptr) entry.coordinator->leave(item);
  entry = {.coordinator = this, .capturedFor = lastNumber_, .previous = last_, .next = nullptr};
  (last_ != nullptr ? last_->dumpEntry_.next : first_) = &item;
  last_ = &item;
  ++itemCount_;
}

void DumpCoordinator::leave(KLNPublishedObject& item) {
  item.willChange();
  const KLNPublishedObject::DumpEntry entry = std::exchange(item.dumpEntry_, {});
  KEEL_CHECK(entry.coordinator == this);
  (entry.previous != nullptr ? entry.previous->dumpEntry_.next : first_) = entry.next;
  (entry.next != nullptr ? entry.next->dumpEntry_.previous : last_) = entry.previous;
  if (next_ == &item) next_ = entry.next;
  --itemCount_;
}

void DumpCoordinator::dropExpired() {
  std::erase_if(ended_,
                [](const std::weak_ptr<xpc::Connection>& ended) { return ended.expired(); });
}

void DumpCoordinator::begin(bool withData, const std::shared_ptr<xpc::Connection>& asker,
                            Reply reply) {
  dropExpired();
  const auto isAsker = [&asker](const std::weak_ptr<xpc::Connection>& ended) {
    return ended.lock() == asker;
  };
  if (std::ranges::any_of(ended_, isAsker)) return;
  Dump& dump = dumps_.emplace_back(
      Dump{++lastNumber_, asker, DumpAnswer(itemCount_, withData), std::move(reply)});
  for (const auto& ended : ended_) {
    if (const auto living = ended.lock()) dump.answer.keepDescription(living);
  }
  if (dumps_.size() > 1) return;
  next_ = first_;
  if (!step() || std::exchange(isQueued_, true)) return;
  // Weak, since this owns the queue.
  incremental_->add([self = weak_from_this()] {
    const auto living = self.lock();
    return living && (living->isQueued_ = living->step());
  });
}

void DumpCoordinator::connectionEnds(const std::shared_ptr<xpc::Connection>& connection) {
  // Destroyed last: releasing a reply may come back here.
  std::list<Dump> dropped;
  const bool firstIsDropped = !dumps_.empty() && dumps_.front().asker.lock() == connection;
  for (auto dump = dumps_.begin(); dump != dumps_.end();) {
    const auto current = dump++;
    if (current->asker.lock() == connection) {
      dropped.splice(dropped.end(), dumps_, current);
    } else {
      current->answer.keepDescription(connection);
    }
  }
  if (firstIsDropped) next_ = first_;
  if (ended_.size() == ended_.capacity()) dropExpired();
  ended_.push_back(connection);
}

void DumpCoordinator::capture(KLNPublishedObject& item) {
  const std::uint64_t capturedFor = std::exchange(item.dumpEntry_.capturedFor, lastNumber_);
  for (Dump& dump : dumps_) {
    if (capturedFor >= dump.number) continue;
    const std::size_t sizeBefore = dump.answer.sizeBytes();
    dump.answer.append(item);
    workDone_ +=
        1 + subscriberCountOf(item) + (dump.answer.sizeBytes() - sizeBefore) / kBytesPerWork;
  }
}

// Returns true while work remains.
bool DumpCoordinator::step() {
  std::size_t passedOverCount = 0;
  workDone_ = 0;
  while (!dumps_.empty() && workDone_ + passedOverCount / kPassedOverPerWork < stepWork_) {
    if (dumps_.front().answer.missingCount() == 0) {
      answerFirst();
      continue;
    }
    KEEL_CHECK(next_ != nullptr);
    KLNPublishedObject& item = *std::exchange(next_, next_->dumpEntry_.next);
    const std::size_t workBefore = workDone_;
    item.willChange();
    if (workDone_ == workBefore) ++passedOverCount;
  }
  while (!dumps_.empty() && dumps_.front().answer.missingCount() == 0) answerFirst();
  return !dumps_.empty();
}

void DumpCoordinator::answerFirst() {
  Dump whole = std::move(dumps_.front());
  dumps_.pop_front();
  next_ = first_;
  auto entries = whole.answer.take();
  // Without memory for it the reply is dropped, and so answers with a failure.
  if (entries) whole.reply(std::move(*entries), nullptr);
}

}  // namespace keel
