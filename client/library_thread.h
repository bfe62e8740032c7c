// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace keel {

class Reactor;
namespace xpc {
class TransportContext;
}

// The one thread of the library in a process, which all clients, listeners and connections share.

// Returns its reactor. The first call starts the thread, with every signal blocked except those
// that report a fault of the thread itself. A program may therefore set up its own signals
// (signalfd(2), sigwait(3), handlers) before or after it uses the library. The signal mask of the
// calling thread does not change.
Reactor& libraryReactor();

// Returns the context shared by the connections of that reactor; starts it too.
xpc::TransportContext& libraryTransport();

// Returns the process in which that thread runs; starts it too. A child that is forked afterwards
// has no such thread: its parent may have held the reactor's locks at that moment, and both share
// one epoll(7) instance. So nothing may touch the reactor there.
pid_t libraryProcess();

// Returns true in such a child.
bool isForkedFromLibrary();

}  // namespace keel
