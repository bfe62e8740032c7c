// SPDX-License-Identifier: Apache-2.0
#include "client/module_connection.h"

#include <fmt/format.h>

#include <cerrno>

#include "client/diagnosis.h"
#include "client/library_thread.h"
#include "platform/product/product.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/transport/service_socket.h"
#include "runtime/xpc/client_endpoint.h"

namespace keel {

namespace {

ClientError ofConnecting(const std::string& serviceName, const Error& error) {
  const bool nobody = error.code() == ENOENT || error.code() == ECONNREFUSED;
  return {nobody ? ClientError::Kind::notRunning : ClientError::Kind::connectFailed,
          fmt::format("{}{}",
                      nobody ? "no module serves " + serviceName + ", see keelctl modules: " : "",
                      error.description()),
          error};
}

}  // namespace

ClientResult<std::shared_ptr<ModuleLink>> ModuleLink::open(const std::string& serviceName,
                                                           const std::string& serviceDirectory,
                                                           const xpc::Interface& remoteInterface) {
  if (isForkedFromLibrary()) return std::unexpected(diagnosis::ofFork("connect to " + serviceName));
  const std::string directory = serviceDirectory.empty() ? kServiceDirectory : serviceDirectory;
  auto connection = xpc::connectToService(directory, serviceName, libraryTransport());
  if (!connection) return std::unexpected(ofConnecting(serviceName, connection.error()));
  auto link = std::make_shared<ModuleLink>(serviceName);
  libraryReactor().post([link, connection = std::move(*connection), &remoteInterface] {
    link->connection_ = connection;
    connection->setRemoteObjectInterface(remoteInterface);
    connection->setReadyHandler([link] {
      link->ready_ = true;
      for (Block& call : std::exchange(link->waiting_, {})) call();
    });
    connection->setInvalidationHandler([link] { link->end(); });
    connection->resume();
  });
  return link;
}

void ModuleLink::close() {
  // The connection's handlers refer to the link, so neither may be destroyed.
  if (isForkedFromLibrary()) return;
  libraryReactor().post([self = shared_from_this()] {
    if (self->connection_) self->connection_->invalidate();
    self->end();
  });
}

void ModuleLink::end() {
  ended_ = true;
  waiting_.clear();
  connection_.reset();
}

void ModuleLink::whenReady(Block call) {
  libraryReactor().post([self = shared_from_this(), call = std::move(call)]() mutable {
    if (self->ended_) return;
    if (self->ready_) return call();
    self->waiting_.push_back(std::move(call));
  });
}

std::optional<ClientError> ModuleLink::refusal() const {
  if (isForkedFromLibrary()) return diagnosis::ofFork("call " + serviceName_);
  if (!libraryReactor().isCurrent()) return std::nullopt;
  return ClientError(ClientError::Kind::wouldDeadlock,
                     "a callback cannot wait for an answer, which it would itself hold up");
}

ClientError ModuleLink::errorOf(const Error& error) const {
  return {ClientError::Kind::requestFailed,
          fmt::format("{} could not be called: {}", serviceName_, error.description()), error};
}
ClientError ModuleLink::timedOut(std::chrono::milliseconds timeout) const {
  return {ClientError::Kind::timedOut,
          fmt::format("{} did not answer within {} ms", serviceName_, timeout.count())};
}
ClientError ModuleLink::lost() const {
  return {ClientError::Kind::disconnected,
          "the connection to " + serviceName_ + " ended before the answer came"};
}

}  // namespace keel
