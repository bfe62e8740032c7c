// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_clock.h"

#include <cstddef>
#include <cstdint>

namespace keel {

namespace {

enum class Reading : std::uint8_t { outsideBatch, none, valid };

thread_local Reading reading = Reading::outsideBatch;
thread_local Date readDate;
thread_local std::size_t agedBlocks = 0;  // since the reading

}  // namespace

Date BlockClock::now() {
  if (reading == Reading::valid) return readDate;
  const Date date = Date::now();
  if (reading == Reading::none) {
    readDate = date;
    reading = Reading::valid;
    agedBlocks = 0;
  }
  return date;
}

void BlockClock::age(std::size_t blocks) {
  agedBlocks += blocks;
  if (agedBlocks >= kBlocksPerReading && reading == Reading::valid) beginBatch();
}

void BlockClock::beginBatch() {
  reading = Reading::none;
  agedBlocks = 0;
}

void BlockClock::endBatch() {
  reading = Reading::outsideBatch;
}

}  // namespace keel
