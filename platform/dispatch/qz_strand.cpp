// SPDX-License-Identifier: Apache-2.0
#include "platform/dispatch/qz_strand.h"

#include "platform/dispatch/reactor.h"
#include "platform/dispatch/system.h"

namespace keel {

QZStrand::QZStrand() : QZStrand(ioReactor()) {}

QZStrand::QZStrand(Executor& executor) : queue_(SerialQueue::create("strand", executor)) {}

}  // namespace keel
