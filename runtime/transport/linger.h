// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/dispatch/reactor.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/transport/admissions.h"
#include "runtime/transport/output_queue.h"

namespace keel::xpc {

// Writes what is left in `output`, which may be null, to a socket without an owner, then closes it
// in the background (foreign_descriptors.h). Gives up after limits::kLinger. Reads nothing.
// `admission` is held until the socket is closed; `owner` stands for the peer's user.
void lingerAndClose(FileDescriptor socket, std::unique_ptr<OutputQueue> output, Admission admission,
                    const void* owner, Reactor& reactor);

}  // namespace keel::xpc
