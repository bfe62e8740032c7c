// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <system_error>

#include "platform/foundation/buffer.h"

// Memory files (memfd_create(2)) that nobody can change any more: how large values travel between processes without being
// copied for each reader.

namespace keel {

// A new memory file that holds `bytes`, sealed against writing, growing, shrinking and further seals.
// Fails with the errno of the call that failed (EMFILE, ENOMEM, ...).
std::expected<FileDescriptor, std::error_code> sealedMemoryOf(std::span<const std::byte> bytes);

// Maps the memory file of a peer. Refused with EPERM when it is not sealed against writing, growing and shrinking, with
// EINVAL when its size is not exactly `sizeBytes` or 0, else with the errno of the call that failed. On failure the
// descriptor is closed.
std::expected<BufferRef, std::error_code> openSealedMemory(FileDescriptor file, std::size_t sizeBytes,
                                                           MemoryAccount& account = MemoryAccount::ofProcess());

}  // namespace keel
