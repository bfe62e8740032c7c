// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/transport/transport.h"
#include "runtime/wire/flat_message.h"

namespace keel::testing {

// Carries messages within this process, frame by frame and without files. Its kinds differ in when
// a frame arrives, and in where blocks run.
class MemoryTransport : public xpc::Transport {
 public:
  void setReading(bool) override {}
  void liftHelloBound() override {}
  bool maySendFiles() override { return false; }

 protected:
  // Carries each frame of a message to the peer.
  void carryAll(const xpc::OutgoingMessage& message) {
    xpc::forEachFrame(message, [this](std::span<const std::byte> frame) { carry(frame); });
  }
  static void arrive(Receiver& receiver, std::span<const std::byte> frame) {
    std::vector<FileDescriptor> noFiles;
    receiver.onFrame(frame, noFiles);
  }

 private:
  // Carries one frame, without its length, to the peer.
  virtual void carry(std::span<const std::byte> frame) = 0;
};

}  // namespace keel::testing
