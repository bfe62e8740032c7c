// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/foundation/file_descriptor.h"

// Descriptors that a peer sent may be of anything, also of a file whose server is that very peer: closing such a one can wait for
// the peer, for ever if it likes. So only memory files, which wait for nobody, are kept or closed by the I/O thread.

namespace keel::xpc {

// Whether it is a memory file (memfd_create(2)).
bool isMemoryFile(const FileDescriptor& descriptor);

// Closes it on a thread that has nothing else to do.
void closeElsewhere(FileDescriptor descriptor);

// False while so many wait to be closed that no more should be received.
bool mayReceiveDescriptors();

}  // namespace keel::xpc
