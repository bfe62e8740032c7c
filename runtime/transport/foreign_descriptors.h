// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <system_error>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/transport/admissions.h"

// A peer may send descriptors of anything: of a file served by that very peer, of a socket that
// lingers. Closing the last reference to such a descriptor may block for as long as the peer likes.
// It can happen implicitly, too: closing a socket closes the descriptors in its unread messages. So
// the I/O thread itself keeps and closes memory files alone, and of sockets only those that were
// read to their end.

namespace keel::xpc {

// Returns true for a memory file (memfd_create(2)).
bool isMemoryFile(const FileDescriptor& descriptor);

// Starts the first of the threads that may block, or returns why it cannot. Called by a process
// that must not run out of descriptors for want of a thread.
std::error_code startClosing();

// Closes the descriptor on a thread that may block, one of the few that `owner` may occupy: any
// address that stands for the user. `admission`, which may be none, is held until then, so a peer
// that makes closing block has fewer connections.
void closeInBackground(FileDescriptor descriptor, Admission admission, const void* owner);

}  // namespace keel::xpc
