// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "runtime/transport/transport_context.h"

namespace keel::xpc {

// The sending half of a stream. Frames wait in a queue, borrowed from the context while it is not
// empty, until the owner flushes them; what the socket does not take stays. Lives on the reactor's
// thread.
class FrameWriter {
 public:
  FrameWriter() = default;
  FrameWriter(const FrameWriter&) = delete;
  FrameWriter& operator=(const FrameWriter&) = delete;

  // Has frames wiped once they are sent.
  void setConfidential() { confidential_ = true; }

  void append(const OutgoingMessage& message, TransportContext& context);
  // Writes what the socket takes; nothing while it is known to be full. Returns 0, or the errno
  // that ended the connection.
  int flush(int socket, TransportContext& context);
  // Notes that the socket takes more again.
  void unblock() { state_ = State::clear; }

  bool isBlocked() const { return state_ != State::clear; }
  // Returns true if blocked by a shortage of the system, whose end the socket does not signal.
  bool isStuck() const { return state_ == State::stuck; }
  // The backlog, the contents of sealed files included, and the part of it that no other queue
  // shares.
  std::size_t waitingBytes() const { return queue_ ? queue_->waitingBytes() : 0; }
  std::size_t ownBytes() const { return queue_ ? queue_->ownBytes() : 0; }

  // Returns the contents of sealed files that the peer may not have read yet.
  std::size_t unreadFileBytes() const { return unreadFileBytes_; }
  // Asks the kernel whether the peer has read everything sent to it.
  void updateUnread(int socket);
  // Returns true while the peer has few enough unread files to be sent more.
  bool maySendFiles(int socket, TransportContext& context);

  // Drops the frames of which nothing was written.
  void dropUnbegunFrames();
  // Releases the queue, which may be null.
  std::unique_ptr<OutputQueue> release() { return std::move(queue_); }

 private:
  enum class State : std::uint8_t { clear, blocked, stuck };

  std::unique_ptr<OutputQueue> queue_;
  std::size_t unreadFileBytes_ = 0;  // sent since the peer was last known to have read everything
  State state_ = State::clear;
  bool confidential_ = false;
};

}  // namespace keel::xpc
