// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_batch.h"

#include <algorithm>

#include "runtime/dispatch/block_clock.h"

namespace keel {

void BlockBatch::append(BlockBatch& other) {
  if (empty()) return swap(other);
  for (std::size_t i = other.next_; i < other.blocks_.size(); ++i)
    blocks_.push_back(std::move(other.blocks_[i]));
  BlockBatch().swap(other);
}

bool BlockBatch::runSome(std::size_t count) noexcept {
  BlockClock::beginBatch();
  const std::size_t end = next_ + std::min(count, blocks_.size() - next_);
  while (next_ < end) {
    Block& block = blocks_[next_++];
    block();
    block = Block();
    BlockClock::age(1);
  }
  BlockClock::endBatch();
  if (next_ < blocks_.size()) return true;
  if (blocks_.capacity() > kKeptCount) {
    blocks_ = std::vector<Block>();
  } else {
    blocks_.clear();
  }
  next_ = 0;
  return false;
}

}  // namespace keel
