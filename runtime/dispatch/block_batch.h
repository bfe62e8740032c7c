// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

#include "runtime/dispatch/block.h"

namespace keel {

// Blocks that are run together, in the order in which they were added. It keeps its memory from one
// run to the next, so that the steady state allocates nothing, but not what a burst made it take.
// No lock of its own.
class BlockBatch {
 public:
  // The room that is kept for the next run; 512 KiB.
  static constexpr std::size_t kKeptCount = 16384;

  void add(Block&& block) { blocks_.push_back(std::move(block)); }
  bool empty() const { return blocks_.empty(); }
  std::size_t capacity() const { return blocks_.capacity(); }
  void swap(BlockBatch& other) noexcept { blocks_.swap(other.blocks_); }

  // Runs each block and destroys it before the next begins: it may hold the last reference to a
  // connection. Nothing may be added to this batch meanwhile. Leaves the batch empty. A block that
  // throws ends the process.
  void run() noexcept;

 private:
  std::vector<Block> blocks_;
};

}  // namespace keel
