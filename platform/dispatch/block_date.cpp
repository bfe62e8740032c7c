// SPDX-License-Identifier: Apache-2.0
#include "platform/dispatch/block_date.h"

#include <cstdint>

namespace keel {

namespace {

enum class Reading : std::uint8_t { outsideBlock, notYet, done };

thread_local Reading reading = Reading::outsideBlock;
thread_local Date readDate;

}  // namespace

Date dateOfBlock() {
  if (reading == Reading::done) return readDate;
  const Date date = Date::now();
  if (reading == Reading::notYet) {
    readDate = date;
    reading = Reading::done;
  }
  return date;
}

void beginDateOfBlock() {
  reading = Reading::notYet;
}

void endDateOfBlock() {
  reading = Reading::outsideBlock;
}

}  // namespace keel
