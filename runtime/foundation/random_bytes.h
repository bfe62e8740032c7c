// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>

namespace keel {

// Fills `bytes` with cryptographically secure random bytes from the kernel. Returns 0, or -1 with
// errno set; then the bytes must not be used. From any thread.
int SecRandomCopyBytes(std::span<std::byte> bytes);

}  // namespace keel
