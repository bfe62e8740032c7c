// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <system_error>

#include "runtime/foundation/buffer.h"

// Memory files (memfd_create(2)) sealed against any change: how large values travel between
// processes without a copy for each reader.

namespace keel {

// Creates a memory file that holds `bytes`, sealed against writing, growing, shrinking and further
// seals. Fails with the errno of the call that failed (EMFILE, ENOMEM, ...).
std::expected<FileDescriptor, std::error_code> sealedMemoryOf(std::span<const std::byte> bytes);

// Maps the memory file of a peer. Fails with EPERM if it is not sealed against writing, growing and
// shrinking, with EINVAL if its size is 0 or not exactly `sizeBytes`, else with the errno of the
// call that failed. Closes the descriptor on failure.
std::expected<BufferRef, std::error_code> openSealedMemory(
    FileDescriptor file, std::size_t sizeBytes,
    MemoryAccount& account = MemoryAccount::ofProcess());

// Builds a large value piece by piece in a memory file that is sealed at the end.
class SealedMemoryWriter {
 public:
  // Fails with the errno of the call that failed (EMFILE, ENOMEM, ...), as the others do.
  static std::expected<SealedMemoryWriter, std::error_code> create();

  // After a failure the writer is of no further use.
  std::expected<void, std::error_code> append(std::span<const std::byte> bytes);
  // Returns all that was appended, which must not be empty.
  std::expected<BufferRef, std::error_code> seal() &&;

 private:
  explicit SealedMemoryWriter(FileDescriptor file) : file_(std::move(file)) {}

  FileDescriptor file_;
  std::size_t sizeBytes_ = 0;
};

}  // namespace keel
