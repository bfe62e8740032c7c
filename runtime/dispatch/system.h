// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace keel {

class Reactor;
class WorkerPool;

// The reactor of this process's I/O thread; both are started on the first call and live until the
// process ends.
Reactor& ioReactor();

// The global queue of default priority: the worker pool of this process, made on the first call,
// kept until it ends.
WorkerPool& globalQueue();

// The same for work that waits for others for seconds: the checks of passwords and rights. Its
// lanes are for the users on whose behalf it waits.
WorkerPool& checkQueue();

// Parks the calling thread for good. The process ends through exit() on another thread.
[[noreturn]] void dispatchMain();

}  // namespace keel
