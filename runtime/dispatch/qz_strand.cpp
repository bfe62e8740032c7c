// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/qz_strand.h"

#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/system.h"

namespace keel {

QZStrand::QZStrand() : QZStrand(ioReactor()) {}

QZStrand::QZStrand(Executor& executor) : queue_(SerialQueue::create("strand", executor)) {}

}  // namespace keel
