// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "runtime/dispatch/block.h"

namespace keel {

// Blocks that run together, in the order in which they were added. Keeps its memory from one run to
// the next, so the steady state allocates nothing, but gives back what a burst took. Not
// synchronised.
class BlockBatch {
 public:
  // Blocks for which memory is kept; 2 MiB.
  static constexpr std::size_t kKeptCount = 16384;
  static_assert(kKeptCount * sizeof(Block) == std::size_t{2} << 20);

  void add(Block&& block) { blocks_.push_back(std::move(block)); }
  // Moves the blocks of `other` behind those of this batch.
  void append(BlockBatch& other);
  bool empty() const { return blocks_.empty(); }
  std::size_t capacity() const { return blocks_.capacity(); }
  void swap(BlockBatch& other) noexcept {
    blocks_.swap(other.blocks_);
    std::swap(next_, other.next_);
  }

  // Runs each block and destroys it before the next begins: it may hold the last reference to a
  // connection. Nothing may be added to this batch meanwhile. Leaves the batch empty. An exception
  // from a block ends the process.
  void run() noexcept { runSome(blocks_.size()); }
  // Runs up to `count` blocks likewise. Returns true if some are left. Blocks may be added between
  // two calls.
  bool runSome(std::size_t count) noexcept;

 private:
  std::vector<Block> blocks_;
  std::size_t next_ = 0;  // those before it have run
};

}  // namespace keel
