// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "runtime/foundation/date.h"

namespace keel {

// The date of the running block: the clock is read once for a few blocks that a serial queue (or
// the reactor) runs in a row, on the first call, so that a fan-out to thousands of subscribers
// costs one reading. It is never earlier than the moment at which the first of them began, so never
// earlier than what made it necessary. Outside a block, each call reads the clock.
Date dateOfBlock();

// As much was done in the running block as in that many small ones: the reading is forgotten once
// it has served for kBlocksPerDate of them.
void ageDateOfBlock(std::size_t blocks);

// Small blocks that share a reading: it takes as long as a good part of one.
inline constexpr std::size_t kBlocksPerDate = 16;

// Forgets the reading; whoever runs blocks calls it before the first.
void beginDateOfBlock();
// Back to reading the clock on each call; whoever runs blocks calls it after the last.
void endDateOfBlock();

}  // namespace keel
