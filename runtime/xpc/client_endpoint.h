// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <string>

#include "runtime/foundation/error.h"
#include "runtime/xpc/connection.h"

namespace keel::xpc {

// Returns the client's end of a new connection to a service, to be configured and resumed; its
// ready handler runs when calls can be made. Fails with a POSIX error: ENOENT or ECONNREFUSED if
// nothing serves that name, EACCES, EAGAIN if the service is overloaded.
std::expected<std::shared_ptr<Connection>, Error> connectToService(const std::string& directory,
                                                                   const std::string& name,
                                                                   TransportContext& context);

// Returns the client's end over a connected socket; for tests and inherited sockets.
std::shared_ptr<Connection> clientConnection(FileDescriptor connectedSocket,
                                             TransportContext& context);

}  // namespace keel::xpc
