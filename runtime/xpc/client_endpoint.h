// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <string>

#include "runtime/foundation/error.h"
#include "runtime/xpc/connection.h"

namespace keel::xpc {

// The client's end of a new connection to a service, to be configured and resumed; its ready
// handler tells when calls can be made. Fails with a POSIX error: ENOENT or ECONNREFUSED when
// nobody serves that name, EACCES, EAGAIN when the service is overloaded.
std::expected<std::shared_ptr<Connection>, Error> connectToService(const std::string& directory,
                                                                   const std::string& name,
                                                                   TransportContext& context);

// The client's end over a socket that is connected already; for tests and inherited sockets.
std::shared_ptr<Connection> clientConnection(FileDescriptor connectedSocket,
                                             TransportContext& context);

}  // namespace keel::xpc
