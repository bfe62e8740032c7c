// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_batch.h"

#include "runtime/dispatch/block_clock.h"

namespace keel {

void BlockBatch::run() noexcept {
  BlockClock::beginBatch();
  for (Block& block : blocks_) {
    block();
    block = Block();
    BlockClock::age(1);
  }
  BlockClock::endBatch();
  if (blocks_.capacity() > kKeptCount) {
    blocks_ = std::vector<Block>();
  } else {
    blocks_.clear();
  }
}

}  // namespace keel
