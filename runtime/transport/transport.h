// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/dispatch/block.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/wire/message.h"

namespace keel::xpc {

class TransportContext;

// Carries whole frames to and from one peer. FrameStream does so over a socket; tests have their
// own.
class Transport {
 public:
  // Receives what arrives. Called on the I/O thread, never from within a call of this transport's
  // own methods, except start().
  class Receiver {
   public:
    // Receives one frame without its length. `bytes` and `files` are borrowed; files left in
    // `files` are closed.
    virtual void onFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) = 0;
    // Called when a frame over the limit was skipped; `beginning` holds its first bytes.
    virtual void onOversizedFrame(std::size_t sizeBytes, std::span<const std::byte> beginning) = 0;
    // Called once when the transport has ended. `reason` is empty if the peer closed it cleanly.
    virtual void onClosed(std::string_view reason) = 0;
    // Returns a reference that keeps the receiver, and with it the transport, alive.
    virtual std::shared_ptr<void> holdAlive() = 0;

   protected:
    ~Receiver() = default;
  };

  virtual ~Transport() = default;

  // The context outlives the transport.
  virtual TransportContext& context() = 0;

  // Starts reading. The receiver is borrowed, and must outlive the transport or the call of
  // onClosed().
  virtual void start(Receiver& receiver) = 0;
  // Sends one message after those sent before. It may be reused immediately.
  virtual void send(const OutgoingMessage& message, EndOfTurnHook::Urgency urgency) = 0;
  // Pauses and resumes reading: back-pressure on a peer with too many unanswered requests. Takes
  // effect before the next frame; what arrived meanwhile is delivered when the peer's user is next
  // served.
  virtual void setReading(bool reading) = 0;
  // Takes back files of the last frame that its message does not claim: they belong to the next.
  virtual void returnFiles(std::vector<FileDescriptor>) {}
  // Lifts the bound on frames before the hello to the regular limit.
  virtual void liftHelloBound() = 0;
  // Marks messages as secret: their bytes are wiped wherever they are held here. Call it before
  // start().
  virtual void setConfidential() {}
  // Closes the transport from this side: sends the backlog, then `goodbye` unless empty, for a
  // bounded time. onClosed() is not called.
  virtual void close(std::string_view goodbye) = 0;

  // Returns true while a message to this peer may carry sealed memory files: not while too many are
  // unread.
  virtual bool maySendFiles() = 0;

  // Runs `block` on the I/O thread: immediately if this is it, else soon, in order.
  virtual void perform(Block block) = 0;
  virtual bool onIoThread() const = 0;
  // Runs `block` on the I/O thread, never from within this call.
  virtual void performLater(Block block) = 0;
};

}  // namespace keel::xpc
