// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <system_error>

#include "runtime/foundation/buffer.h"

// Memory files (memfd_create(2)) that nobody can change any more: how large values travel between
// processes without being copied for each reader.

namespace keel {

// A new memory file that holds `bytes`, sealed against writing, growing, shrinking and further
// seals. Fails with the errno of the call that failed (EMFILE, ENOMEM, ...).
std::expected<FileDescriptor, std::error_code> sealedMemoryOf(std::span<const std::byte> bytes);

// Maps the memory file of a peer. Refused with EPERM when it is not sealed against writing, growing
// and shrinking, with EINVAL when its size is not exactly `sizeBytes` or 0, else with the errno of
// the call that failed. On failure the descriptor is closed.
std::expected<BufferRef, std::error_code> openSealedMemory(
    FileDescriptor file, std::size_t sizeBytes,
    MemoryAccount& account = MemoryAccount::ofProcess());

// A memory file that grows until it is sealed: for a large value that is made piece by piece.
class GrowingMemory {
 public:
  // Fails with the errno of the call that failed (EMFILE, ENOMEM, ...), as the others do.
  static std::expected<GrowingMemory, std::error_code> create();

  // After a failure the file is of no use any more.
  std::expected<void, std::error_code> append(std::span<const std::byte> bytes);
  // All that was appended, which must be something.
  std::expected<BufferRef, std::error_code> seal() &&;

 private:
  explicit GrowingMemory(FileDescriptor file) : file_(std::move(file)) {}

  FileDescriptor file_;
  std::size_t sizeBytes_ = 0;
};

}  // namespace keel
