// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace keel {

// From now on SIGINT and SIGTERM end the process at once, whatever its threads are doing, with 128
// and the signal's number; keeld sees the connection end. A reader that went away shows in the
// result of write(2) instead of SIGPIPE. Before any thread exists.
void endOnSignals();

// What such a signal does before; null for nothing. Called on a thread of its own.
void callAtEndBySignal(void (*function)());

// The child that gets the signal too; 0 for none.
void passSignalsTo(pid_t child);

}  // namespace keel
