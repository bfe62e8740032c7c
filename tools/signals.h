// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace keel {

// Makes SIGINT and SIGTERM end the process immediately, whatever its threads are doing, with 128
// plus the signal's number; the connection to keeld ends with it. Ignores SIGPIPE: write(2) reports
// a reader that is gone. Call it before any thread exists.
void endOnSignals();

// Sets the function that such a signal calls first, on a separate thread; null for none.
void callAtEndBySignal(void (*function)());

// Sets the child that receives the signal, too; 0 for none.
void passSignalsTo(pid_t child);

}  // namespace keel
