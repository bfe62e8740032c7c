// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/dispatch/reactor.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/transport/output_queue.h"

namespace keel::xpc {

// Writes what is left in `output` to a socket that nobody owns any more, then closes it; gives up after limits::kFarewell.
// Nothing is read, and the socket is closed elsewhere (foreign_descriptors.h). `admission` is held until it is; `owner` stands
// for the peer's user. Lives by itself on the reactor.
void sendFarewell(FileDescriptor socket, BorrowedOutputQueue output, std::shared_ptr<void> admission, const void* owner,
                  Reactor& reactor);

}  // namespace keel::xpc
