// SPDX-License-Identifier: Apache-2.0
#include "notify/update_line.h"

#include <utility>

#include "notify/notification_handler.h"
#include "runtime/dispatch/serial_queue.h"

namespace keel {

namespace {

// Batches that are kept with their memory: many small ones, for clients that update several names in turn, and a few large
// ones.
constexpr std::size_t kSmallSpares = 512;
constexpr std::size_t kLargeSpares = 4;
constexpr std::size_t kSmallUpdates = 64;
constexpr std::size_t kLargeUpdates = 4096;

}  // namespace

// In its block. The queue may drop it without running it.
class UpdateLine::QueuedBatch {
 public:
  QueuedBatch(std::shared_ptr<UpdateLine> line, std::unique_ptr<UpdateBatch> batch)
      : line_(std::move(line)), batch_(std::move(batch)) {}
  QueuedBatch(QueuedBatch&&) = default;
  QueuedBatch(const QueuedBatch&) = delete;
  QueuedBatch& operator=(const QueuedBatch&) = delete;
  ~QueuedBatch() {
    if (batch_) line_->takeBack(std::move(batch_));
  }

  void operator()() {
    // Nothing more can be added.
    if (line_->last_ == batch_.get()) line_->last_ = nullptr;
    batch_->handler->update(*batch_);
  }

 private:
  std::shared_ptr<UpdateLine> line_;
  std::unique_ptr<UpdateBatch> batch_;
};

UpdateLine::UpdateLine(std::shared_ptr<SerialQueue> inputQueue) : inputQueue_(std::move(inputQueue)) {}

UpdateLine::~UpdateLine() = default;

void UpdateLine::add(KLNNotificationHandler& handler, Name name, Dictionary data, xpc::Reply<Error> reply) {
  const bool joins =
      last_ != nullptr && inputQueue_->lastNumber() == numberOfLast_ && last_->handler.get() == &handler && last_->name == name;
  std::unique_ptr<UpdateBatch> begun;
  if (!joins) {
    begun = emptyBatch();
    begun->handler = handler.shared_from_this();
    begun->name = std::move(name);
    last_ = begun.get();
  }
  last_->data.push_back(std::move(data));
  last_->replies.push_back(std::move(reply));
  if (begun) numberOfLast_ = inputQueue_->async(QueuedBatch(shared_from_this(), std::move(begun)));
}

std::unique_ptr<UpdateBatch> UpdateLine::emptyBatch() {
  auto& spares = largeSpares_.empty() ? smallSpares_ : largeSpares_;
  if (spares.empty()) return std::make_unique<UpdateBatch>();
  auto batch = std::move(spares.back());
  spares.pop_back();
  return batch;
}

void UpdateLine::takeBack(std::unique_ptr<UpdateBatch> batch) {
  if (last_ == batch.get()) last_ = nullptr;
  batch->data.clear();
  batch->replies.clear();
  batch->handler = nullptr;
  batch->name = nullptr;
  const std::size_t room = batch->data.capacity();
  if (room > kLargeUpdates) return;
  auto& spares = room > kSmallUpdates ? largeSpares_ : smallSpares_;
  if (spares.size() < (room > kSmallUpdates ? kLargeSpares : kSmallSpares)) spares.push_back(std::move(batch));
}

}  // namespace keel
