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

// Carries whole frames to and from one peer. FrameStream does it over a socket; tests have their
// own.
class Transport {
 public:
  // Who is told of what comes in. On the I/O thread; never from within a call of this transport's
  // own methods, but for start().
  class Receiver {
   public:
    // One frame without its length. `bytes` and `files` are borrowed; files left in `files` are
    // closed.
    virtual void onFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) = 0;
    // A frame over the limit was skipped; `beginning` holds its first bytes.
    virtual void onOversizedFrame(std::size_t sizeBytes, std::span<const std::byte> beginning) = 0;
    // Nothing comes and nothing goes any more. Once. `reason` is empty when the peer closed in good
    // order.
    virtual void onClosed(std::string_view reason) = 0;
    // What keeps the receiver, and with it the transport, alive for as long as it is held.
    virtual std::shared_ptr<void> holdAlive() = 0;

   protected:
    ~Receiver() = default;
  };

  virtual ~Transport() = default;

  // Outlives the transport.
  virtual TransportContext& context() = 0;

  // Begins to read. The receiver is borrowed, and must outlive the transport or the call of
  // onClosed().
  virtual void start(Receiver& receiver) = 0;
  // Sends one frame behind those sent before. The message may be reused at once.
  virtual void send(const OutgoingMessage& message, EndOfTurnHook::Urgency urgency) = 0;
  // Stops and resumes reading: back-pressure on a peer that asks for more than it gets answered.
  // Takes effect before the next frame; resuming hands over what came meanwhile at the end of the
  // turn.
  virtual void setReading(bool reading) = 0;
  // Frames may be as long as the limit says, no longer bounded as before the hello.
  virtual void liftHelloBound() = 0;
  // What comes and goes holds secrets: its bytes are wiped wherever they are held here. Before
  // start().
  virtual void setConfidential() {}
  // Ends it from our side. Sends what is waiting, then `goodbye` unless empty, for a bounded time.
  // onClosed() is not called.
  virtual void close(std::string_view goodbye) = 0;

  // Whether a message to this peer may bring sealed memory files: not while it leaves too many
  // unread.
  virtual bool maySendFiles() = 0;

  // Runs `block` on the I/O thread: at once when this is it, else soon, in order.
  virtual void perform(Block block) = 0;
  virtual bool onIoThread() const = 0;
  // Runs `block` on the I/O thread, never from within this call.
  virtual void performLater(Block block) = 0;
};

}  // namespace keel::xpc
