// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/connection.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "runtime/foundation/value.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel::xpc {

namespace {

// Connections are told apart in texts by a number; they are made on whatever thread has a reactor.
std::atomic<std::uint32_t> lastConnectionNumber{0};

// One message per thread to build in, so that none is allocated.
OutgoingMessage& scratchMessage() {
  thread_local OutgoingMessage message;
  return message;
}

// How large replies may be that travel together, and how many do.
constexpr std::size_t kLargestRepliesTogether = 256;
constexpr std::size_t kRepliesTogether = 64;

void writeReplyHead(OutgoingMessage& message, std::uint64_t requestId, std::size_t resultCount) {
  cbor::Writer writer = message.writer();
  writer.array(3);
  writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::reply));
  writer.unsignedInteger(requestId);
  writer.array(resultCount);
}

}  // namespace

Error connectionError(ConnectionErrorCode code, std::string_view description) {
  return Error(kConnectionErrorDomain, static_cast<std::int64_t>(code),
               Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), description}})));
}

std::shared_ptr<Connection> Connection::create(PeerIdentity peer, std::unique_ptr<Transport> transport,
                                               const Options& options) {
  // Destroyed on the I/O thread, whoever lets go of it last: there it may be used without being counted.
  return std::shared_ptr<Connection>(new Connection(std::move(peer), std::move(transport), options), [](Connection* last) {
    std::unique_ptr<Connection> owned(last);
    if (!owned->transport_->onIoThread()) last->transport_->performLater([going = std::move(owned)] {});
  });
}

Connection::Connection(PeerIdentity peer, std::unique_ptr<Transport> transport, const Options& options)
    : transport_(std::move(transport)), options_(options), number_(++lastConnectionNumber), peer_(std::move(peer)) {}

Connection::~Connection() = default;

std::string Connection::description() const {
  return fmt::format("<connection {} pid {} ({}) uid {} session {}>", number_, peer_.pid, peer_.processName, peer_.uid,
                     peer_.auditSession);
}

void Connection::resume() {
  KEEL_CHECK(state_ == State::configured);
  state_ = State::running;
  keptAlive_ = shared_from_this();
  sendHello();
  transport_->start(*this);
}

void Connection::invalidate(std::string_view goodbye) {
  end(goodbye, /*transportIsClosed=*/false);
}

void Connection::sendHello() {
  OutgoingMessage& message = scratchMessage();
  cbor::Writer writer = message.begin();
  const auto selectors = exportedInterface_ != nullptr ? exportedInterface_->selectors() : std::span<const std::string_view>();
  writer.array(4);
  writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::hello));
  writer.unsignedInteger(kProtocolVersion);
  writer.array(selectors.size());
  for (const std::string_view selector : selectors) writer.text(selector);
  writer.map(1);
  writer.text("descriptors");
  writer.boolean(options_.takesDescriptors);
  message.finish();
  transport_->send(message, EndOfTurn::Urgency::normal);
}

std::int64_t Connection::methodNumber(const Interface& interface, std::size_t place) const {
  if (&interface != remoteInterface_ || !methodNumbers_) return -1;
  return (*methodNumbers_)[place];
}

std::uint64_t Connection::expectReply(ReplyReader read, ErrorBlock onError) {
  Caller& asking = caller();
  const std::uint64_t id = asking.nextRequestId++;
  asking.expected.emplace(id, Expected{std::move(read), std::move(onError)});
  return id;
}

void Connection::unexpectReply(std::uint64_t requestId, Error error) {
  if (!caller_) return;
  auto found = caller_->expected.extract(requestId);
  if (!found.empty()) reportError(std::move(found.mapped().onError), std::move(error));
}

void Connection::reportError(ErrorBlock onError, Error error) {
  Block report = [onError = std::move(onError), error = std::move(error)]() mutable { onError(std::move(error)); };
  if (queue_) {
    queue_->async(std::move(report));
  } else {
    transport_->performLater(std::move(report));
  }
}

void Connection::sendReply(std::uint64_t requestId, std::size_t resultCount, WriteResults write, void* results) {
  OutgoingMessage& message = scratchMessage();
  message.begin();
  writeReplyHead(message, requestId, resultCount);
  // Off the I/O thread nobody knows what the peer has left unread.
  ArgumentWriter arguments{message, transport_->onIoThread() && takesDescriptors()};
  write(results, arguments);
  if (!message.finish()) {
    return sendFailure(requestId, FailureCode::unsendable,
                       fmt::format("the answer is longer than a frame can be ({} bytes)", limits::kFrameBytesFromDaemon));
  }
  sendAnswer(requestId, message);
}

void Connection::sendReplies(std::span<const std::uint64_t> requestIds, std::size_t resultCount, WriteResults write,
                             void* results) {
  if (confidential_ || !transport_->onIoThread()) {
    return ReplyRoute::sendReplies(requestIds, resultCount, write, results);
  }
  OutgoingMessage encoded;
  encoded.begin();
  ArgumentWriter arguments{encoded, /*takesDescriptors=*/false};
  write(results, arguments);
  if (encoded.wireBytes() > kLargestRepliesTogether) {
    return ReplyRoute::sendReplies(requestIds, resultCount, write, results);
  }
  OutgoingMessage& message = scratchMessage();
  for (std::span<const std::uint64_t> rest = requestIds; !rest.empty();) {
    const std::span<const std::uint64_t> some = rest.first(std::min(rest.size(), kRepliesTogether));
    rest = rest.subspan(some.size());
    message.begin();
    for (const std::uint64_t& id : some) {
      if (&id != some.data()) message.beginNext();
      writeReplyHead(message, id, resultCount);
      message.writer().encoded(encoded.bytes().subspan(kLengthBytes));
      message.finish();
    }
    transport_->send(message, EndOfTurn::Urgency::urgent);
    for (const std::uint64_t id : some) requestAnswered(id);
  }
}

void Connection::sendFailure(std::uint64_t requestId, FailureCode code, std::string_view text) {
  OutgoingMessage& message = scratchMessage();
  writeFailure(message, requestId, code, text);
  sendAnswer(requestId, message);
}

void Connection::sendAnswer(std::uint64_t requestId, OutgoingMessage& message) {
  if (transport_->onIoThread()) {
    transport_->send(message, EndOfTurn::Urgency::urgent);
    // A large answer is not held until the next one.
    if (!message.splices().empty() || !message.files().empty()) message.begin();
    return requestAnswered(requestId);
  }
  transport_->perform([self = shared_from_this(), requestId, moved = std::move(message)] {
    self->transport_->send(moved, EndOfTurn::Urgency::urgent);
    self->requestAnswered(requestId);
  });
}

// Without a queue everything that counts is on the I/O thread, and nothing has to be locked.
std::uint32_t Connection::changeUnanswered(std::int32_t difference) {
  const auto added = static_cast<std::uint32_t>(difference);
  if (queue_) return unansweredCount_.fetch_add(added, std::memory_order_relaxed) + added;
  const std::uint32_t changed = unansweredCount_.load(std::memory_order_relaxed) + added;
  unansweredCount_.store(changed, std::memory_order_relaxed);
  return changed;
}

void Connection::requestAnswered(std::uint64_t requestId) {
  changeUnanswered(-1);
  if (requestId == heavyRequestId_) {
    heavyRequestId_ = 0;
    // Not before what this answer made wait was counted, at the end of the turn.
    transport_->performLater([turns = options_.heavyTurns, user = options_.quota->account] { turns->leave(user); });
  }
  if (readingPaused_) adjustReading();
}

void Connection::adjustReading() {
  // Once paused, half of each limit has to be free again: not a pause for every message.
  const std::size_t divisor = readingPaused_ ? 2 : 1;
  const bool pause = unansweredCount_ > limits::kUnansweredRequests / divisor ||
                     queuedBytes_ > limits::kPauseReadingBytes / divisor || heavyRequestId_ != 0;
  if (pause == readingPaused_ || state_ != State::running) return;
  readingPaused_ = pause;
  transport_->setReading(!pause);
}

void Connection::end(std::string_view goodbye, bool transportIsClosed) {
  if (state_ == State::ended) return;
  const std::shared_ptr<Connection> self = shared_from_this();
  state_ = State::ended;
  keptAlive_.reset();
  if (!transportIsClosed) transport_->close(goodbye);
  runOnQueue([self, farewell = farewell_] {
    if (!self->caller_) return;
    const std::string why =
        farewell.isNull() ? std::string("the connection ended") : fmt::format("the connection ended: {}", farewell.view());
    for (auto& [id, expected] : std::exchange(self->caller_->expected, {})) {
      self->reportError(std::move(expected.onError), connectionError(ConnectionErrorCode::invalid, why));
    }
  });
  if (!queue_ && inCallee_) {
    // What is running must not be destroyed under its own feet.
    transport_->performLater([self] { self->release(); });
  } else {
    runOnQueue([self] { self->release(); });
  }
}

void Connection::release() {
  if (invalidationHandler_) invalidationHandler_();
  invalidationHandler_ = {};
  interruptionHandler_ = {};
  if (caller_) caller_->readyHandler = {};
  exportedObject_.reset();
}

void Connection::runOnQueue(Block block) {
  if (queue_) {
    queue_->async(std::move(block));
  } else {
    block();
  }
}

}  // namespace keel::xpc
