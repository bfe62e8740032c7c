// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/foundation/date.h"

namespace keel {

// The date of the running block: the clock is read once for a few blocks that a serial queue (or the reactor) runs in a row, on
// the first call, so that a fan-out to thousands of subscribers costs one reading. It is never earlier than the moment at which
// the first of them began, so never earlier than what made it necessary. Outside a block, each call reads the clock.
Date dateOfBlock();

// Forgets the reading; whoever runs blocks calls it before the first, and every few blocks.
void beginDateOfBlock();
// Back to reading the clock on each call; whoever runs blocks calls it after the last.
void endDateOfBlock();

}  // namespace keel
