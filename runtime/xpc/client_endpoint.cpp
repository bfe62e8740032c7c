// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/client_endpoint.h"

#include "runtime/transport/frame_stream.h"
#include "runtime/transport/service_socket.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

std::expected<std::shared_ptr<Connection>, Error> connectToService(const std::string& directory,
                                                                   const std::string& name,
                                                                   TransportContext& context) {
  auto socket = connectSocket(directory, name);
  if (!socket) return std::unexpected(socket.error());
  return clientConnection(std::move(*socket), context);
}

std::shared_ptr<Connection> clientConnection(FileDescriptor connectedSocket,
                                             TransportContext& context) {
  // The path of the socket, which only the administrator can create, identifies the server; the
  // client need not check its identity.
  Connection::Options options;
  options.receiveLimitBytes = limits::kFrameBytesFromDaemon;
  FrameStream::Terms terms{.frameLimitBytes = options.receiveLimitBytes};
  return Connection::create(
      PeerIdentity(),
      std::make_unique<FrameStream>(std::move(connectedSocket), context, std::move(terms)),
      options);
}

}  // namespace keel::xpc
