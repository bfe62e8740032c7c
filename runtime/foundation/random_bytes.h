// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>

namespace keel {

// Fills `bytes` with what nobody can guess, from the kernel. 0, or -1 with errno set; then the
// bytes are not to be used. From any thread.
int SecRandomCopyBytes(std::span<std::byte> bytes);

}  // namespace keel
