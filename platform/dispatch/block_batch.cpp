// SPDX-License-Identifier: Apache-2.0
#include "platform/dispatch/block_batch.h"

#include "platform/dispatch/block_date.h"

namespace keel {

void BlockBatch::run() noexcept {
  std::size_t count = 0;
  for (Block& block : blocks_) {
    if (count++ % kBlocksPerDate == 0) beginDateOfBlock();
    block();
    block = Block();
  }
  endDateOfBlock();
  if (blocks_.capacity() > kKeptCount) {
    blocks_ = std::vector<Block>();
  } else {
    blocks_.clear();
  }
}

}  // namespace keel
