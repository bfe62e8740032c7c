// SPDX-License-Identifier: Apache-2.0
//
// How an answer in slices shows one moment:
//
// - Each dump has a number, and each item has the number of the last dump it was described for. An
// item whose number is smaller
//   than that of a dump in progress is missing in its answer. Describing an item describes it for
//   all dumps that lack it, so one number is enough however many there are.
// - An item is described when its turn comes, and before it changes, or leaves the table, if that
// is earlier. An item that
//   enters the table gets the last number, and so is missing nowhere. While no dump is in progress,
//   no item has a smaller number than the last (or once more, after a dump that was dropped): to
//   ask for that is all that a change costs.
// - A subscription changes with its item: whoever adds, removes or delivers says so to the item.
// - A connection that ends changes the text of all its items and subscriptions without touching
// them. So the answers remember
//   those that end meanwhile, and those that had ended before but were still there when the dump
//   began.
// - The dumps' common walk over the items begins anew when the first dump is answered; what it then
// passes over was described
//   already. It ends with the last missing entry, not with the last item.
#include "notify/dump_desk.h"

#include <algorithm>
#include <utility>

#include "notify/dump_answer.h"
#include "notify/published_object.h"
#include "notify/slice_line.h"
#include "runtime/foundation/check.h"
#include "runtime/xpc/connection.h"

namespace keel {

namespace {

constexpr std::size_t kBytesPerWork = std::size_t{2} << 10;

// Items that the walk looks at in the time in which it describes one.
constexpr std::size_t kPassedOverPerWork = 8;

std::size_t subscriberCountOf(KLNPublishedObject& item) {
  return item.subscribers() != nullptr ? item.subscribers()->count() : 0;
}

}  // namespace

struct DumpDesk::Dump {
  std::uint64_t number;
  std::weak_ptr<xpc::Connection> asker;
  DumpAnswer answer;
  Reply reply;
};

DumpDesk::DumpDesk(std::shared_ptr<SliceLine> line) : line_(std::move(line)) {}

DumpDesk::~DumpDesk() {
  dumps_.clear();
  while (first_ != nullptr) leave(*first_);
}

void DumpDesk::enter(KLNPublishedObject& item) {
  KLNPublishedObject::DumpPlace& place = item.dumpPlace_;
  if (place.desk != nullptr) place.desk->leave(item);
  place = {.desk = this, .describedFor = lastNumber_, .previous = last_, .next = nullptr};
  (last_ != nullptr ? last_->dumpPlace_.next : first_) = &item;
  last_ = &item;
  ++itemCount_;
}

void DumpDesk::leave(KLNPublishedObject& item) {
  item.willChange();
  const KLNPublishedObject::DumpPlace place = std::exchange(item.dumpPlace_, {});
  KEEL_CHECK(place.desk == this);
  (place.previous != nullptr ? place.previous->dumpPlace_.next : first_) = place.next;
  (place.next != nullptr ? place.next->dumpPlace_.previous : last_) = place.previous;
  if (next_ == &item) next_ = place.next;
  --itemCount_;
}

// Of the connections that ended, those that nobody holds any more.
void DumpDesk::forgetTheGone() {
  std::erase_if(ended_,
                [](const std::weak_ptr<xpc::Connection>& ended) { return ended.expired(); });
}

void DumpDesk::begin(bool withData, const std::shared_ptr<xpc::Connection>& asker, Reply reply) {
  forgetTheGone();
  const auto isAsker = [&asker](const std::weak_ptr<xpc::Connection>& ended) {
    return ended.lock() == asker;
  };
  if (std::ranges::any_of(ended_, isAsker)) return;
  Dump& dump = dumps_.emplace_back(
      Dump{++lastNumber_, asker, DumpAnswer(itemCount_, withData), std::move(reply)});
  for (const auto& ended : ended_) {
    if (const auto living = ended.lock()) dump.answer.remember(living);
  }
  if (dumps_.size() > 1) return;
  next_ = first_;
  if (!work() || std::exchange(isInLine_, true)) return;
  // Weakly, since the desk holds the line.
  line_->add([desk = weak_from_this()] {
    const auto living = desk.lock();
    return living && (living->isInLine_ = living->work());
  });
}

void DumpDesk::connectionEnds(const std::shared_ptr<xpc::Connection>& connection) {
  // Letting go of the answer of a connection may come back here.
  std::list<Dump> dropped;
  const bool firstIsDropped = !dumps_.empty() && dumps_.front().asker.lock() == connection;
  for (auto dump = dumps_.begin(); dump != dumps_.end();) {
    const auto current = dump++;
    if (current->asker.lock() == connection) {
      dropped.splice(dropped.end(), dumps_, current);
    } else {
      current->answer.remember(connection);
    }
  }
  if (firstIsDropped) next_ = first_;
  if (ended_.size() == ended_.capacity()) forgetTheGone();
  ended_.push_back(connection);
}

void DumpDesk::describe(KLNPublishedObject& item) {
  const std::uint64_t describedFor = std::exchange(item.dumpPlace_.describedFor, lastNumber_);
  for (Dump& dump : dumps_) {
    if (describedFor >= dump.number) continue;
    const std::size_t sizeBefore = dump.answer.sizeBytes();
    dump.answer.describe(item);
    workDone_ +=
        1 + subscriberCountOf(item) + (dump.answer.sizeBytes() - sizeBefore) / kBytesPerWork;
  }
}

// One slice; says whether anything is left.
bool DumpDesk::work() {
  std::size_t passedOverCount = 0;
  workDone_ = 0;
  while (!dumps_.empty() && workDone_ + passedOverCount / kPassedOverPerWork < sliceWork_) {
    if (dumps_.front().answer.missingCount() == 0) {
      answerFirst();
      continue;
    }
    KEEL_CHECK(next_ != nullptr);
    KLNPublishedObject& item = *std::exchange(next_, next_->dumpPlace_.next);
    const std::size_t workBefore = workDone_;
    item.willChange();
    if (workDone_ == workBefore) ++passedOverCount;
  }
  while (!dumps_.empty() && dumps_.front().answer.missingCount() == 0) answerFirst();
  return !dumps_.empty();
}

void DumpDesk::answerFirst() {
  Dump whole = std::move(dumps_.front());
  dumps_.pop_front();
  next_ = first_;
  auto entries = whole.answer.take();
  // Without memory for it the reply is dropped, and so answers with a failure.
  if (entries) whole.reply(std::move(*entries), nullptr);
}

}  // namespace keel
