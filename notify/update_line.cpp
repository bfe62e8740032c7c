// SPDX-License-Identifier: Apache-2.0
#include "notify/update_line.h"

#include <utility>

#include "notify/notification_handler.h"
#include "platform/dispatch/serial_queue.h"

namespace keel {

namespace {

// Updates for which a batch keeps its memory.
constexpr std::size_t kKeptUpdates = 4096;

}  // namespace

// The queue may drop it without running it.
struct UpdateLine::QueuedBatch {
  explicit QueuedBatch(std::shared_ptr<UpdateLine> of) : line(std::move(of)) { std::swap(batch, line->spare_); }
  ~QueuedBatch() {
    close();
    batch.data.clear();
    batch.replies.clear();
    batch.handler = nullptr;
    batch.name = nullptr;
    const std::size_t room = batch.data.capacity();
    if (room > line->spare_.data.capacity() && room <= kKeptUpdates) std::swap(batch, line->spare_);
  }
  QueuedBatch(const QueuedBatch&) = delete;
  QueuedBatch& operator=(const QueuedBatch&) = delete;

  // Nothing more can be added.
  void close() {
    if (line->last_ == this) line->last_ = nullptr;
  }

  std::shared_ptr<UpdateLine> line;
  UpdateBatch batch;
};

UpdateLine::UpdateLine(std::shared_ptr<SerialQueue> inputQueue) : inputQueue_(std::move(inputQueue)) {}

UpdateLine::~UpdateLine() = default;

void UpdateLine::add(KLNNotificationHandler& handler, Name name, Dictionary data, xpc::Reply<Error> reply) {
  const bool joins = last_ != nullptr && inputQueue_->lastNumber() == numberOfLast_ && last_->batch.handler.get() == &handler &&
                     last_->batch.name == name;
  std::unique_ptr<QueuedBatch> added;
  if (!joins) {
    added = std::make_unique<QueuedBatch>(shared_from_this());
    added->batch.handler = handler.shared_from_this();
    added->batch.name = std::move(name);
    last_ = added.get();
  }
  last_->batch.data.push_back(std::move(data));
  last_->batch.replies.push_back(std::move(reply));
  if (joins) return;
  numberOfLast_ = inputQueue_->async([queued = std::move(added)] {
    queued->close();
    queued->batch.handler->update(queued->batch);
  });
}

}  // namespace keel
