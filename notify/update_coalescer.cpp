// SPDX-License-Identifier: Apache-2.0
#include "notify/update_coalescer.h"

#include <utility>

#include "notify/notification_handler.h"
#include "runtime/dispatch/current_user.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/logging/logger.h"
#include "runtime/wire/limits.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("notification");

// Many batches are in flight when clients alternate between names.
constexpr std::size_t kIdleBatches = 512;

// Upper bound of the envelope's size, excluding name and data.
constexpr std::size_t kEnvelopeOverheadBytes = 32;

// Upper bound of what one subscriber is sent for an update. A value in a memory file exceeds a
// batch's bound.
std::size_t sentBytes(const Name& name, const Dictionary& data) {
  const std::size_t dataBytes = data.buffer() ? data.buffer()->size() : 0;
  return dataBytes + name.view().size() + kEnvelopeOverheadBytes;
}

}  // namespace

// The block of a batch. The queue may drop it without running it.
class UpdateCoalescer::QueuedBatch {
 public:
  QueuedBatch(std::shared_ptr<UpdateCoalescer> coalescer, std::unique_ptr<UpdateBatch> batch)
      : coalescer_(std::move(coalescer)), batch_(std::move(batch)) {}
  QueuedBatch(QueuedBatch&&) = default;
  QueuedBatch(const QueuedBatch&) = delete;
  QueuedBatch& operator=(const QueuedBatch&) = delete;
  ~QueuedBatch() {
    if (batch_) coalescer_->giveBack(std::move(batch_));
  }

  void operator()() {
    // A running batch accepts no more updates.
    if (coalescer_->last_ == batch_.get()) coalescer_->last_ = nullptr;
    const WorkingFor working(batch_->user);
    batch_->handler->update(*batch_);
  }

 private:
  std::shared_ptr<UpdateCoalescer> coalescer_;
  std::unique_ptr<UpdateBatch> batch_;
};

UpdateCoalescer::UpdateCoalescer(std::shared_ptr<SerialQueue> inputQueue)
    : inputQueue_(std::move(inputQueue)) {}

UpdateCoalescer::~UpdateCoalescer() = default;

void UpdateCoalescer::add(KLNNotificationHandler& handler, Name name, Dictionary data,
                          xpc::Reply<Error> reply) {
  const std::size_t bytes = sentBytes(name, data);
  std::unique_ptr<UpdateBatch> begun;
  if (!canJoin(handler, name, bytes)) {
    begun = takeIdle();
    begun->handler = handler.shared_from_this();
    begun->user = currentUser();
    begun->name = std::move(name);
    last_ = begun.get();
  }
  last_->data.push_back(std::move(data));
  last_->replies.push_back(std::move(reply));
  last_->bytes += bytes;
  if (begun)
    lastBlockNumber_ = inputQueue_->async(QueuedBatch(shared_from_this(), std::move(begun)));
}

bool UpdateCoalescer::canJoin(const KLNNotificationHandler& handler, const Name& name,
                              std::size_t bytes) const {
  return last_ != nullptr && inputQueue_->lastSequenceNumber() == lastBlockNumber_ &&
         last_->handler.get() == &handler && last_->bytes + bytes <= xpc::limits::kBatchBytes &&
         last_->name == name && !log.enabled(LogLevel::debug);
}

std::unique_ptr<UpdateBatch> UpdateCoalescer::takeIdle() {
  if (idle_.empty()) return std::make_unique<UpdateBatch>();
  auto batch = std::move(idle_.back());
  idle_.pop_back();
  return batch;
}

void UpdateCoalescer::giveBack(std::unique_ptr<UpdateBatch> batch) {
  if (last_ == batch.get()) last_ = nullptr;
  batch->data.clear();
  batch->replies.clear();
  batch->handler = nullptr;
  batch->name = nullptr;
  batch->bytes = 0;
  if (idle_.size() < kIdleBatches) idle_.push_back(std::move(batch));
}

}  // namespace keel
