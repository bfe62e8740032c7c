// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "runtime/transport/transport_context.h"

namespace keel::xpc {

// The way out of a stream. Frames wait in a queue, borrowed from the context while anything waits,
// until somebody flushes them; what the socket does not take stays. Lives on the reactor's thread.
class FrameWriter {
 public:
  explicit FrameWriter(TransportContext& context) : context_(context) {}
  FrameWriter(const FrameWriter&) = delete;
  FrameWriter& operator=(const FrameWriter&) = delete;

  // What was appended is wiped once it is sent.
  void setConfidential() { confidential_ = true; }

  void append(const OutgoingMessage& message);
  // Writes what the socket takes; nothing while it is known to take no more. Returns 0, or the
  // errno that ended the connection.
  int flush(int socket);
  // The socket takes more again.
  void unblock() { state_ = State::clear; }

  bool isBlocked() const { return state_ != State::clear; }
  // Blocked by a shortage of the system's, whose end the socket does not announce.
  bool isStuck() const { return state_ == State::stuck; }
  // What waits, the contents of sealed files included, and the part that no other queue shares.
  std::size_t waitingBytes() const { return queue_ ? queue_->waitingBytes() : 0; }
  std::size_t ownBytes() const { return queue_ ? queue_->ownBytes() : 0; }

  // Returns true while the peer has left so few files unread that it may be sent more.
  bool maySendFiles(int socket);

  // Drops the frames of which nothing was written.
  void dropUnbegunFrames();
  // Hands out the queue, which may be null.
  std::unique_ptr<OutputQueue> release() { return std::move(queue_); }

 private:
  enum class State : std::uint8_t { clear, blocked, stuck };

  TransportContext& context_;
  std::unique_ptr<OutputQueue> queue_;
  std::size_t unreadFileBytes_ = 0;  // sent since the peer was last seen to have read everything
  State state_ = State::clear;
  bool confidential_ = false;
};

}  // namespace keel::xpc
