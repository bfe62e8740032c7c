// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/frame_writer.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "runtime/wire/limits.h"

namespace keel::xpc {

void FrameWriter::append(const OutgoingMessage& message, TransportContext& context) {
  if (!queue_) queue_ = context.outputQueues().take();
  if (confidential_) queue_->setConfidential();
  queue_->append(message);
}

int FrameWriter::flush(int socket, TransportContext& context) {
  if (!queue_ || isBlocked()) return 0;
  if (const auto flushed = queue_->flush(socket); !flushed) return flushed.error().value();
  unreadFileBytes_ += queue_->takeSentFileBytes();
  if (queue_->empty()) {
    context.outputQueues().giveBack(std::move(queue_));
  } else {
    state_ = queue_->isStuck() ? State::stuck : State::blocked;
  }
  return 0;
}

bool FrameWriter::maySendFiles(int socket, TransportContext& context) {
  if (context.stuckStreamCount() > 0) return false;
  if (unreadFileBytes_ <= limits::kUnreadSealedBytes) return true;
  updateUnread(socket);
  return unreadFileBytes_ == 0;
}

void FrameWriter::updateUnread(int socket) {
  int unread = 0;
  if (::ioctl(socket, SIOCOUTQ, &unread) == 0 && unread == 0) unreadFileBytes_ = 0;
}

void FrameWriter::dropUnbegunFrames() {
  if (queue_) queue_->dropUnbegunFrames();
}

}  // namespace keel::xpc
