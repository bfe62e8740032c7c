// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_date.h"

#include <cstddef>
#include <cstdint>

namespace keel {

namespace {

enum class Reading : std::uint8_t { outsideBlock, notYet, done };

thread_local Reading reading = Reading::outsideBlock;
thread_local Date readDate;
thread_local std::size_t age = 0;  // of the reading

}  // namespace

Date dateOfBlock() {
  if (reading == Reading::done) return readDate;
  const Date date = Date::now();
  if (reading == Reading::notYet) {
    readDate = date;
    reading = Reading::done;
    age = 0;
  }
  return date;
}

void ageDateOfBlock(std::size_t blocks) {
  age += blocks;
  if (age >= kBlocksPerDate && reading == Reading::done) beginDateOfBlock();
}

void beginDateOfBlock() {
  reading = Reading::notYet;
  age = 0;
}

void endDateOfBlock() {
  reading = Reading::outsideBlock;
}

}  // namespace keel
