// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <system_error>

#include "runtime/foundation/file_descriptor.h"

// Descriptors that a peer sent may be of anything: of a file whose server is that very peer, of a
// socket that lingers. Closing the last reference to such a one can wait, for as long as the peer
// likes. It also happens where nobody seems to close anything: when a socket is closed while
// messages with descriptors lie in it unread. So the I/O thread itself keeps and closes memory
// files alone, and of sockets only those that were read to their end.

namespace keel::xpc {

// Whether it is a memory file (memfd_create(2)).
bool isMemoryFile(const FileDescriptor& descriptor);

// Starts the first of the threads that may wait, or returns why it cannot. Called by whoever must
// not run out of descriptors for want of a thread.
std::error_code startClosing();

// Closes it on a thread that may wait, one of the few that `owner` may keep waiting: any address
// that stands for the user. `admission`, which may be null, is held until then: who lets us wait
// has fewer connections.
void closeInBackground(FileDescriptor descriptor, std::shared_ptr<void> admission,
                       const void* owner);

}  // namespace keel::xpc
