// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace keel {

class Reactor;
class WorkerPool;

// Returns the reactor of this process's I/O thread; both are started on the first call and live
// until the process ends.
Reactor& ioReactor();

// Returns the global queue of default priority: the worker pool of this process, created on the
// first call and kept until the process ends. Its lanes are keyed by the user on whose behalf it
// works.
WorkerPool& globalQueue();

// Returns the pool for work that may block for seconds: checks of passwords and rights. Its lanes
// are keyed by the user on whose behalf it blocks.
WorkerPool& checkQueue();

// Parks the calling thread for good. Another thread ends the process through exit().
[[noreturn]] void dispatchMain();

}  // namespace keel
