// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_batch.h"

#include "runtime/dispatch/block_date.h"

namespace keel {

void BlockBatch::run() noexcept {
  beginDateOfBlock();
  for (Block& block : blocks_) {
    block();
    block = Block();
    ageDateOfBlock(1);
  }
  endDateOfBlock();
  if (blocks_.capacity() > kKeptCount) {
    blocks_ = std::vector<Block>();
  } else {
    blocks_.clear();
  }
}

}  // namespace keel
