// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/foundation/date.h"

namespace keel {

// The date of the running block: the clock is read once per block of a serial queue (or posted to the reactor), on the first
// call, so that a fan-out to thousands of subscribers costs one reading. Outside a block, each call reads the clock.
Date dateOfBlock();

// Forgets the reading; whoever runs blocks calls it before each.
void beginDateOfBlock();
// Back to reading the clock on each call; whoever runs blocks calls it after the last.
void endDateOfBlock();

}  // namespace keel
