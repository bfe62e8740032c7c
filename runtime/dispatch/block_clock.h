// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "runtime/foundation/date.h"

namespace keel {

// The wall clock as blocks see it. One reading serves several small blocks of a batch, so a fan-out
// to thousands of subscribers reads the clock once. A date is never earlier than the start of the
// first block that shares it, so never earlier than the event that caused it. Outside a batch each
// call reads the clock. State is per thread.
class BlockClock {
 public:
  // Small blocks that share a reading, which itself costs a good part of such a block.
  static constexpr std::size_t kBlocksPerReading = 16;

  static Date now();
  // Counts work worth `blocks` small blocks; the reading expires after kBlocksPerReading of them.
  static void age(std::size_t blocks);

  // For whatever runs a batch of blocks: before the first and after the last.
  static void beginBatch();
  static void endBatch();
};

}  // namespace keel
