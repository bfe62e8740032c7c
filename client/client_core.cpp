// SPDX-License-Identifier: Apache-2.0
//
// The core's guarantees:
//
// No callback after the destruction. Every callback passes the gate; abandon() closes it, waiting
// for the running callback. The rest of the teardown is posted to the I/O thread and may happen
// later.
//
// No callback within a call. Every call of the program is posted, also on the I/O thread; so a
// callback may call anything, and no container here changes during iteration.
//
// Exactly one result. Answer, timeout, disconnection, close() and a waiter's timeout race for
// Operation::settled; the first one wins. The operation leaves the list, and stops counting against
// the limits, with the first of those events on the I/O thread.
#include "client/client_core.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "client/diagnosis.h"
#include "client/subscriber_endpoint.h"

namespace keel {

ClientCore::ClientCore(Reactor& reactor, Connector connector, std::string socketPath,
                       ClientOptions options, std::function<double()> random, ClientService service,
                       pid_t process)
    : reactor_(reactor),
      connector_(std::move(connector)),
      socketPath_(std::move(socketPath)),
      options_(std::move(options)),
      service_(service),
      process_(process),
      backOff_(options_.minimumPause, options_.maximumPause, std::move(random)),
      disconnection_(ClientError::Kind::disconnected, "not connected yet") {}

void ClientCore::start() {
  if (isForked()) return;
  started_ = true;
  reactor_.post([self = shared_from_this()] { self->connect(); });
}

ClientResult<void> ClientCore::submit(std::shared_ptr<Operation> operation,
                                      std::chrono::milliseconds timeout) {
  if (isForked()) return std::unexpected(diagnosis::ofFork(operation->what()));
  const std::size_t bytes = operation->bytes;
  const std::size_t count = waitingRequests_.fetch_add(1) + 1;
  const std::size_t sum = waitingBytes_.fetch_add(bytes) + bytes;
  if (count > options_.waitingRequests || sum > options_.waitingBytes) {
    waitingRequests_.fetch_sub(1);
    waitingBytes_.fetch_sub(bytes);
    return std::unexpected(
        ClientError(ClientError::Kind::tooMany,
                    fmt::format("too many requests wait for keeld's answer ({} with {} bytes of "
                                "data); wait for some of them to {}",
                                count - 1, sum - bytes, operation->what())));
  }
  operation->timeout = timeout;
  reactor_.post(
      [self = shared_from_this(), operation = std::move(operation)] { self->begin(operation); });
  return {};
}

void ClientCore::begin(std::shared_ptr<Operation> operation) {
  Operation& it = *operation;
  it.id = nextId_++;
  operations_.emplace(it.id, operation);
  if (it.refusal) return fail(it, std::move(*it.refusal));
  if (ended_) return fail(it, diagnosis::ofClosing(it.what()));
  if (it.isLocal()) return it.send(*this);
  if (!options_.reconnect && state_.kind == ConnectionState::Kind::disconnected) {
    return fail(it,
                ClientError(disconnection_.kind(),
                            fmt::format("could not {}: {}", it.what(), disconnection_.message()),
                            disconnection_.underlying()));
  }
  it.timer = reactor_.after(it.timeout, [weak = weak_from_this(), id = it.id] {
    if (const auto self = weak.lock()) self->timedOut(id);
  });
  if (ready_) send(it);
}

void ClientCore::send(Operation& operation) {
  operation.sent = true;
  operation.send(*this);
}

bool ClientCore::settle(Operation& operation) {
  if (operations_.erase(operation.id) == 1) {
    reactor_.cancel(operation.timer);
    waitingRequests_.fetch_sub(1);
    waitingBytes_.fetch_sub(operation.bytes);
  }
  return !operation.settled.exchange(true);
}

void ClientCore::timedOut(std::uint64_t id) {
  const auto found = operations_.find(id);
  if (found == operations_.end()) return;
  const auto operation = found->second;
  const bool unconnected =
      !operation->sent && disconnection_.kind() != ClientError::Kind::disconnected;
  fail(*operation, unconnected
                       ? diagnosis::ofWaiting(operation->what(), disconnection_, operation->timeout)
                       : diagnosis::ofTimeout(operation->what(), operation->timeout));
}

void ClientCore::callFailed(Operation& operation, const Error& error) {
  if (connection_ && error.code() == static_cast<std::int64_t>(xpc::ConnectionErrorCode::invalid)) {
    return fail(operation,
                diagnosis::ofRequestAtLoss(operation.what(),
                                           diagnosis::ofLoss(connection_->goodbye()).message()));
  }
  fail(operation, answerError(operation, error));
}

void ClientCore::fail(Operation& operation, ClientError error) {
  // Held here, because the list may own the last reference.
  const auto found = operations_.find(operation.id);
  const auto kept = found == operations_.end() ? nullptr : found->second;
  if (settle(operation)) runCallback([&] { operation.fail(std::move(error)); });
  operation.drop();
}

template <class ErrorOf>
void ClientCore::failOperations(bool all, ErrorOf errorOf) {
  std::vector<std::shared_ptr<Operation>> ending;
  for (const auto& [id, operation] : operations_) {
    if (all || operation->sent) ending.push_back(operation);
  }
  for (const auto& operation : ending) fail(*operation, errorOf(*operation));
}

ClientError ClientCore::answerError(const Operation& operation, const Error& error) const {
  return diagnosis::ofAnswer(operation.what(), error);
}

void ClientCore::connect() {
  connectTimer_ = 0;
  if (ended_) return;
  setState({.kind = ConnectionState::Kind::connecting, .reason = {}});
  auto made = connector_();
  if (!made) return disconnected(diagnosis::ofConnecting(made.error(), socketPath_));

  connection_ = std::move(*made);
  const std::uint64_t number = ++connectionNumber_;
  const std::weak_ptr<ClientCore> weak = weak_from_this();
  if (service_ == ClientService::notify) {
    configureForNotify();
  } else {
    connection_->setRemoteObjectInterface(
        xpc::Interface::interfaceWithProtocol<protocols::AuthProxy>());
    connection_->setConfidential();
  }
  connection_->setReadyHandler([weak, number] {
    const auto self = weak.lock();
    if (self && self->connectionNumber_ == number) self->connected();
  });
  connection_->setInvalidationHandler([weak, number] {
    const auto self = weak.lock();
    if (self && self->connectionNumber_ == number)
      self->disconnected(diagnosis::ofLoss(self->connection_->goodbye()));
  });
  connection_->resume();
}

void ClientCore::configureForNotify() {
  connection_->setRemoteObjectInterface(
      xpc::Interface::interfaceWithProtocol<protocols::NotifyProxy>());
  connection_->setExportedInterface(
      xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
  auto deliver = [weak = weak_from_this(), number = connectionNumber_](Name name, Dictionary item,
                                                                       Error error) {
    const auto self = weak.lock();
    if (self && self->connectionNumber_ == number)
      self->records_.deliver(name, std::move(item), std::move(error));
  };
  connection_->setExportedObject<protocols::SubscriberProxy>(
      std::make_shared<SubscriberEndpoint>(std::move(deliver)));
}

void ClientCore::connected() {
  ready_ = true;
  disconnection_ = ClientError(ClientError::Kind::disconnected, "");
  steadyTimer_ = reactor_.after(backOff_.maximum(), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->backOff_.reset();
  });
  setState({.kind = ConnectionState::Kind::connected, .reason = {}});
  records_.connected({shared_from_this(), &records_}, connection_);
  std::vector<std::shared_ptr<Operation>> waiting;
  for (const auto& [id, operation] : operations_) waiting.push_back(operation);
  for (const auto& operation : waiting) send(*operation);
}

void ClientCore::disconnected(ClientError reason) {
  ++connectionNumber_;
  connection_ = nullptr;
  ready_ = false;
  reactor_.cancel(std::exchange(steadyTimer_, 0));
  records_.disconnected();
  disconnection_ = std::move(reason);
  setState({ConnectionState::Kind::disconnected, disconnection_.message(), disconnection_.kind()});
  failOperations(/*all=*/!options_.reconnect, [&](const Operation& operation) {
    return operation.sent ? diagnosis::ofRequestAtLoss(operation.what(), disconnection_.message())
                          : ClientError(disconnection_.kind(),
                                        fmt::format("could not {}: {}", operation.what(),
                                                    disconnection_.message()),
                                        disconnection_.underlying());
  });
  if (options_.reconnect) {
    connectTimer_ = reactor_.after(backOff_.next(), [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->connect();
    });
  }
}

void ClientCore::setState(ConnectionState state) {
  state_ = std::move(state);
  if (!stateHandler_) return;
  runCallback([this] { stateHandler_(state_); });
}

void ClientCore::setStateHandler(std::move_only_function<void(const ConnectionState&)> handler) {
  if (isForked()) return;
  reactor_.post([self = shared_from_this(), handler = std::move(handler)]() mutable {
    self->stateHandler_ = std::move(handler);
    if (self->stateHandler_) self->runCallback([&] { self->stateHandler_(self->state_); });
  });
}

void ClientCore::setPublicationHandler(
    std::move_only_function<void(const PublicationState&)> handler) {
  if (isForked()) return;
  reactor_.post([self = shared_from_this(), handler = std::move(handler)]() mutable {
    self->records_.setPublicationHandler(std::move(handler));
  });
}

void ClientCore::cancel(std::shared_ptr<SubscriptionRecord> record) {
  if (isForked()) return;
  gate_.afterRunning(onIoThread(), [&] { record->cancelled = true; });
  reactor_.post(
      [self = shared_from_this(), record = std::move(record)] { self->records_.drop(*record); });
}

void ClientCore::close() {
  if (isForked()) return;
  reactor_.post([self = shared_from_this()] { self->end(); });
}

void ClientCore::abandon() {
  if (isForked()) {
    if (started_) leakedAfterFork_ = shared_from_this();
    return;
  }
  gate_.close(onIoThread());
  reactor_.post([self = shared_from_this()] {
    self->end();
    self->stateHandler_ = nullptr;
    self->records_.setPublicationHandler(nullptr);
  });
}

void ClientCore::end() {
  if (ended_) return;
  ended_ = true;
  ++connectionNumber_;
  reactor_.cancel(std::exchange(connectTimer_, 0));
  reactor_.cancel(std::exchange(steadyTimer_, 0));
  ready_ = false;
  if (const auto connection = std::exchange(connection_, nullptr)) connection->invalidate();
  failOperations(/*all=*/true,
                 [](const Operation& operation) { return diagnosis::ofClosing(operation.what()); });
  records_.end();
  setState(
      {.kind = ConnectionState::Kind::closed, .reason = {}, .error = ClientError::Kind::closed});
}

}  // namespace keel
