// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "runtime/foundation/buffer.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/memory_account.h"

namespace keel::xpc {

// Holds a value that travels beside its message: the memory file as received, or the value once it
// is checked.
struct SealedValue {
  enum class State : std::uint8_t {
    received,   // `file` is not opened yet
    accepted,   // `value` is one well-formed array or map
    refused,    // it is anything else
    overQuota,  // the sender's user lacks the quota for it
  };

  SealedValue() = default;
  explicit SealedValue(FileDescriptor received) : file(std::move(received)) {}
  // Copies an array or map, which must be well-formed.
  static SealedValue copyOf(std::span<const std::byte> item, const MemoryQuota& quota);

  // Maps a received file of `sizeBytes` bytes and checks its content. No effect in another state.
  void check(std::size_t sizeBytes, const MemoryQuota& quota);

  State state = State::received;
  FileDescriptor file;
  BufferRef value;
};
using SealedValues = std::vector<SealedValue>;

// Returns the permitted nesting of a value of that CBOR major type.
std::size_t depthOf(std::uint8_t major);

// Holds a message whose large values have been checked and moved to `values`, so that the time to
// read its arguments does not depend on their size.
struct CheckedMessage {
  std::vector<std::byte> frame;
  SealedValues values;
  std::vector<FileDescriptor> unclaimed;  // files that it does not refer to
};

// Checks the large arguments and the sealed values of a message. Returns a frame in which a
// reference to its value replaces each large array or map. A malformed message stays malformed, and
// its reader finds that at once. From any thread.
CheckedMessage checkMessage(std::span<const std::byte> frame, SealedValues values,
                            std::size_t sealedLimitBytes, const MemoryQuota& quota);

}  // namespace keel::xpc
