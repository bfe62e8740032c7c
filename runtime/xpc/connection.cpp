// SPDX-License-Identifier: Apache-2.0
//
// docs/protocol.md has the rules. In short: a message that cannot be served is answered with a
// failure and the connection stays, answers are never answered, and only a peer that fails the
// handshake is disconnected.
#include "runtime/xpc/connection.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "runtime/dispatch/current_user.h"
#include "runtime/foundation/secret.h"
#include "runtime/foundation/value.h"
#include "runtime/logging/logger.h"
#include "runtime/xpc/hello.h"

namespace keel::xpc {

namespace {

Logger& logger() {
  static Logger& runtime = _loggerForCategory("runtime");
  return runtime;
}

// Identifies connections in log texts. Any thread that runs a reactor may create one.
std::atomic<std::uint32_t> lastConnectionNumber{0};

SealedValues takeFirst(std::vector<FileDescriptor>& files, std::size_t count) {
  const auto end = files.begin() + static_cast<std::ptrdiff_t>(std::min(count, files.size()));
  SealedValues taken(std::make_move_iterator(files.begin()), std::make_move_iterator(end));
  files.erase(files.begin(), end);
  return taken;
}

}  // namespace

Error connectionError(ConnectionErrorCode code, std::string_view description) {
  return Error(kConnectionErrorDomain, static_cast<std::int64_t>(code),
               Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), description}})));
}

std::shared_ptr<Connection> Connection::create(PeerIdentity peer,
                                               std::unique_ptr<Transport> transport,
                                               const Options& options) {
  // Destroyed on the I/O thread whichever thread releases it last: code there may use it without
  // holding a reference.
  return std::shared_ptr<Connection>(
      new Connection(std::move(peer), std::move(transport), options), [](Connection* last) {
        std::unique_ptr<Connection> owned(last);
        if (!owned->transport_->onIoThread())
          last->transport_->performLater([going = std::move(owned)] {});
      });
}

Connection::Connection(PeerIdentity peer, std::unique_ptr<Transport> transport,
                       const Options& options)
    : transport_(std::move(transport)),
      server_(*this),
      options_(options),
      number_(++lastConnectionNumber),
      peer_(std::move(peer)) {}

Connection::~Connection() = default;

std::string Connection::description() const {
  return fmt::format("<connection {} pid {} ({}) uid {} session {}>", number_, peer_.pid,
                     peer_.processName, peer_.uid, peer_.auditSession);
}

void Connection::setQueue(std::shared_ptr<SerialQueue> queue, Executor& slowRequests) {
  queue_ = std::move(queue);
  slowRequests_ = &slowRequests;
  server_.setShared();
}

void Connection::setConfidential() {
  confidential_ = true;
  transport_->setConfidential();
}

Connection::Asking& Connection::asking() {
  if (!asking_) asking_ = std::make_unique<Asking>();
  return *asking_;
}

void Connection::resume() {
  KEEL_CHECK(state_ == State::configured);
  state_ = State::running;
  keptAlive_ = shared_from_this();
  const MessagePool::Borrowed message = context().messages().borrow();
  const Interface* const exported = server_.interface();
  writeHello(*message,
             exported != nullptr ? exported->selectors() : std::span<const std::string_view>(),
             options_.takesDescriptors);
  send(*message);
  transport_->start(*this);
}

void Connection::invalidate(std::string_view goodbye) {
  end(goodbye, /*transportIsClosed=*/false);
}

// ---- Receiving

void Connection::onFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) {
  const WorkingFor user(peer_.uid);
  if (!helloReceived_) return receiveHello(bytes);
  // A read may return a message and the files of the next: each message takes the files that it
  // claims, served or refused.
  const bool isLarge = bytes.size() > limits::kCheckedInPlaceBytes;
  // Finding out which files a large message claims takes as long as checking it.
  if (isLarge && !queue_ && options_.checks)
    return checkFrame(bytes, takeFirst(files, files.size()));
  SealedValues claimed;
  if (!files.empty()) claimed = takeFirst(files, countSealedArguments(bytes));
  if (queue_) return queueFrame(bytes, claimed);
  if (!claimed.empty() && options_.checks) return checkFrame(bytes, std::move(claimed));
  receive(bytes, claimed);
}

// Handing a message over costs more than checking a small one, but checking a large one takes
// milliseconds, for which nobody else should wait. The connection is not read meanwhile, so the
// order holds.
void Connection::checkFrame(std::span<const std::byte> bytes, SealedValues values) {
  server_.checkBegun();
  options_.checks->async([self = shared_from_this(),
                          frame = Buffer::copyOf(bytes, *options_.quota->account),
                          held = std::move(values)]() mutable {
    const WorkingFor user(self->peer_.uid);
    auto checked = std::make_unique<CheckedMessage>(checkMessage(
        frame->bytes(), std::move(held), self->options_.receiveLimitBytes, *self->options_.quota));
    // Not with this block: its charge would count, or not, when the message is received.
    frame = BufferRef();
    self->transport_->performLater([self, message = std::move(checked)] {
      const WorkingFor receivedFor(self->peer_.uid);
      if (!message->unclaimed.empty()) self->transport_->returnFiles(std::move(message->unclaimed));
      self->server_.checkEnded();
      if (self->state_ == State::running) self->receive(message->frame, message->values);
    });
  });
}

void Connection::receiveHello(std::span<const std::byte> bytes) {
  const auto read = readHello(bytes, remoteInterface_, context());
  if (const auto* violation = std::get_if<PeerViolation>(&read))
    return protocolViolation(violation->text);
  if (const auto* words = std::get_if<PeerGoodbye>(&read)) {
    if (!words->text.empty()) goodbye_ = String(words->text);
    return end({}, /*transportIsClosed=*/false);
  }
  const auto& hello = std::get<PeerHello>(read);
  methodIndexes_ = hello.methodIndexes;
  peerTakesDescriptors_ = hello.takesDescriptors;
  helloReceived_ = true;
  transport_->liftHelloBound();
  if (asking_ && asking_->readyHandler) std::exchange(asking_->readyHandler, {})();
}

void Connection::queueFrame(std::span<const std::byte> bytes, SealedValues& values) {
  if (options_.quota->account->bytes() > options_.quota->grantedNameBytes()) {
    return protocolViolation("its user holds too much here for a message to wait");
  }
  BufferRef copy = Buffer::copyOf(bytes, *options_.quota->account, limits::kQueuedMessageBytes);
  if (confidential_) copy->makeSecret();
  server_.messageQueued(bytes.size());
  Executor* const slow = server_.weightOf(bytes) == Weight::slow ? slowRequests_ : nullptr;
  Block work = [self = shared_from_this(), frame = std::move(copy),
                taken = std::move(values)]() mutable {
    const WorkingFor user(self->peer_.uid);
    if (self->state_ == State::running) self->receive(frame->bytes(), taken);
    if (self->confidential_) wipeStack();
    self->transport_->perform([self, size = frame->size()] { self->server_.messageServed(size); });
  };
  if (slow != nullptr) {
    queue_->asyncOn(*slow, std::move(work));
  } else {
    queue_->async(std::move(work));
  }
}

void Connection::onOversizedFrame(std::size_t sizeBytes, std::span<const std::byte> beginning) {
  const WorkingFor user(peer_.uid);
  if (!helloReceived_)
    return protocolViolation(fmt::format("a hello of {} bytes is too large", sizeBytes));
  const std::optional<Envelope> envelope = peekEnvelope(beginning);
  const std::string text = fmt::format("a message of {} bytes is too large; at most {} are taken",
                                       sizeBytes, limits::kFrameBytes);
  if (envelope && envelope->kind != MessageKind::request && envelope->kind != MessageKind::oneWay) {
    return runOnQueue([self = shared_from_this(), text] { self->interrupted(text); });
  }
  runOnQueue([self = shared_from_this(), id = envelope ? envelope->requestId : std::nullopt, text] {
    self->server_.refuseOversized(id, text);
  });
}

void Connection::onClosed(std::string_view reason) {
  const WorkingFor user(peer_.uid);
  if (!reason.empty() && state_ == State::running)
    logger().error("{} dropped: {}", description(), reason);
  if (goodbye_.isNull() && !reason.empty()) goodbye_ = String(reason);
  end({}, /*transportIsClosed=*/true);
}

void Connection::receive(std::span<const std::byte> bytes, SealedValues& values) {
  cbor::Cursor cursor(bytes);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  if (!cursor.array(count) || !cursor.unsignedInteger(kind)) {
    return server_.refuse(std::nullopt, FailureCode::undecodable, "the message cannot be decoded");
  }
  switch (static_cast<MessageKind>(std::min<std::uint64_t>(kind, 0xff))) {
    case MessageKind::request:
      return server_.receiveRequest(cursor, count, values);
    case MessageKind::oneWay:
      return server_.receiveOneWay(cursor, count, values);
    case MessageKind::reply:
      return receiveReply(cursor, count, values);
    case MessageKind::failure:
      return receiveFailure(cursor, count);
    case MessageKind::goodbye:
      return receiveGoodbye(cursor, count);
    case MessageKind::hello:
      return transport_->perform(
          [self = shared_from_this()] { self->protocolViolation("it said hello twice"); });
  }
  server_.refuse(std::nullopt, FailureCode::undecodable,
                 fmt::format("there is no message of kind {}", kind));
}

std::optional<PendingReplies::Reply> Connection::takePending(cbor::Cursor& cursor) {
  std::uint64_t id = 0;
  if (!cursor.unsignedInteger(id) || !asking_) return std::nullopt;
  return asking_->pending.take(id);
}

void Connection::receiveReply(cbor::Cursor& cursor, std::uint64_t count, SealedValues& values) {
  auto pending = takePending(cursor);
  if (!pending) return interrupted("an answer to no request");
  std::uint64_t resultCount = 0;
  const bool framed = count == 3 && cursor.array(resultCount);
  ArgumentReader reader(cursor.rest(), values, options_.receiveLimitBytes);
  if (framed && pending->read(reader, resultCount)) return;
  pending->onError(
      connectionError(ConnectionErrorCode::badReply, "the peer's answer does not fit the method"));
  interrupted("an answer that does not fit its method");
}

void Connection::receiveFailure(cbor::Cursor& cursor, std::uint64_t count) {
  if (count == 4 && cursor.null()) return interrupted("the peer could not serve a one-way message");
  auto pending = takePending(cursor);
  if (!pending) return interrupted("an answer to no request");
  std::uint64_t code = 0;
  std::string_view text;
  if (count != 4 || !cursor.unsignedInteger(code) || !cursor.text(text) || !cursor.atEnd()) {
    pending->onError(
        connectionError(ConnectionErrorCode::badReply, "the peer's failure cannot be decoded"));
    return interrupted("a failure that cannot be decoded");
  }
  const Value userInfo =
      Value::map({{std::string(NSLocalizedDescriptionKey), text}, {"failureCode", code}});
  pending->onError(Error(kConnectionErrorDomain,
                         static_cast<std::int64_t>(ConnectionErrorCode::refused),
                         Dictionary(userInfo)));
}

void Connection::receiveGoodbye(cbor::Cursor& cursor, std::uint64_t count) {
  std::string_view text;
  if (count != 2 || !cursor.text(text) || !cursor.atEnd())
    return interrupted("a goodbye that cannot be decoded");
  transport_->perform(
      [self = shared_from_this(), words = text.empty() ? String(nullptr) : String(text)] {
        if (self->state_ == State::ended) return;
        self->goodbye_ = words;
        self->end({}, /*transportIsClosed=*/false);
      });
}

void Connection::interrupted(std::string_view why) {
  // Once per connection: a peer that sends nonsense must not fill the log.
  if (!std::exchange(interruptionLogged_, true))
    logger().error("{} sent what cannot be served: {}", description(), why);
  if (interruptionHandler_) inCallee([this] { interruptionHandler_(); });
}

void Connection::protocolViolation(std::string_view what) {
  const WorkingFor user(peer_.uid);
  if (state_ == State::running) logger().error("{} dropped: {}", description(), what);
  end(what, /*transportIsClosed=*/false);
}

// ---- Sending

std::expected<std::int64_t, Error> Connection::indexAt(const Interface& interface,
                                                       std::size_t index) const {
  if (!isValid())
    return std::unexpected(
        connectionError(ConnectionErrorCode::invalid, "the connection is invalid"));
  const bool isKnown =
      &interface == remoteInterface_ && methodIndexes_ && (*methodIndexes_)[index] >= 0;
  if (isKnown) return (*methodIndexes_)[index];
  return std::unexpected(connectionError(ConnectionErrorCode::notImplemented,
                                         "the peer does not implement the method"));
}

void Connection::reportError(ErrorBlock onError, Error error) {
  Block report = [uid = peer_.uid, onError = std::move(onError),
                  error = std::move(error)]() mutable {
    const WorkingFor user(uid);
    onError(std::move(error));
  };
  if (queue_) {
    queue_->async(std::move(report));
  } else {
    transport_->performLater(std::move(report));
  }
}

void Connection::sendReply(std::uint64_t requestId, std::size_t resultCount, WriteResults write,
                           void* results) {
  server_.sendReply(requestId, resultCount, write, results);
}

void Connection::sendFailure(std::uint64_t requestId, FailureCode code, std::string_view text) {
  server_.sendFailure(requestId, code, text);
}

void Connection::sendReplies(std::span<const std::uint64_t> requestIds, std::size_t resultCount,
                             WriteResults write, void* results) {
  if (server_.sendReplies(requestIds, resultCount, write, results)) return;
  ReplyRoute::sendReplies(requestIds, resultCount, write, results);
}

// ---- Teardown

void Connection::end(std::string_view text, bool transportIsClosed) {
  if (state_ == State::ended) return;
  const std::shared_ptr<Connection> self = shared_from_this();
  state_ = State::ended;
  keptAlive_.reset();
  if (!transportIsClosed) transport_->close(text);
  runOnQueue([self, goodbye = goodbye_] { self->failPending(goodbye); });
  if (!queue_ && inCallee_) {
    transport_->performLater([self] { self->release(); });
  } else {
    runOnQueue([self] { self->release(); });
  }
}

void Connection::failPending(const String& goodbye) {
  if (!asking_) return;
  const std::string why = goodbye.isNull()
                              ? std::string("the connection ended")
                              : fmt::format("the connection ended: {}", goodbye.view());
  for (auto& [id, pending] : asking_->pending.takeAll()) {
    reportError(std::move(pending.onError), connectionError(ConnectionErrorCode::invalid, why));
  }
}

void Connection::release() {
  const WorkingFor user(peer_.uid);
  if (invalidationHandler_) invalidationHandler_();
  invalidationHandler_ = {};
  interruptionHandler_ = {};
  if (asking_) asking_->readyHandler = {};
  server_.setObject(nullptr);
}

void Connection::runOnQueue(Block block) {
  if (queue_) {
    queue_->async([uid = peer_.uid, run = std::move(block)]() mutable {
      const WorkingFor user(uid);
      run();
    });
  } else {
    block();
  }
}

}  // namespace keel::xpc
