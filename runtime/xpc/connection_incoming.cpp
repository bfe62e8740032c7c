// SPDX-License-Identifier: Apache-2.0
// What comes in on a connection. docs/protocol.md has the rules; in short: what cannot be served is answered with a failure and
// the connection stays, answers are never answered, and only a peer that does not even begin properly is turned away.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "runtime/foundation/secret.h"
#include "runtime/logging/logger.h"
#include "runtime/xpc/connection.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel::xpc {

namespace {

Logger& logger() {
  static Logger& runtime = _loggerForCategory("runtime");
  return runtime;
}

constexpr std::string_view kUndecodable = "the message cannot be decoded";

using MethodNumbers = std::vector<std::int64_t>;

// Reads a hello's list of selectors as the numbers of `interface`'s methods. Most peers are alike: a list equal to the last one
// shares its numbers.
std::shared_ptr<const MethodNumbers> readMethodNumbers(cbor::Cursor& cursor, const Interface* interface) {
  const std::span<const std::string_view> wanted =
      interface != nullptr ? interface->selectors() : std::span<const std::string_view>();
  std::uint64_t count = 0;
  if (!cursor.array(count)) return nullptr;
  MethodNumbers numbers(wanted.size(), -1);
  for (std::uint64_t number = 0; number < count; ++number) {
    std::string_view selector;
    if (!cursor.text(selector)) return nullptr;
    const auto found = std::find(wanted.begin(), wanted.end(), selector);
    if (found != wanted.end()) numbers[static_cast<std::size_t>(found - wanted.begin())] = static_cast<std::int64_t>(number);
  }
  thread_local std::shared_ptr<const MethodNumbers> last;
  if (!last || *last != numbers) last = std::make_shared<const MethodNumbers>(std::move(numbers));
  return last;
}

std::vector<FileDescriptor> takeFirst(std::vector<FileDescriptor>& files, std::size_t count) {
  const auto end = files.begin() + static_cast<std::ptrdiff_t>(std::min(count, files.size()));
  std::vector<FileDescriptor> taken(std::make_move_iterator(files.begin()), std::make_move_iterator(end));
  files.erase(files.begin(), end);
  return taken;
}

// How much a message asks for, before it is looked at any further.
Weight weightOf(std::span<const std::byte> frame, const Interface* interface) {
  cbor::Cursor cursor(frame);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  std::uint64_t id = 0;
  std::uint64_t method = 0;
  const bool isRequest = interface != nullptr && cursor.array(count) && cursor.unsignedInteger(kind) &&
                         kind == static_cast<std::uint64_t>(MessageKind::request) && cursor.unsignedInteger(id) &&
                         cursor.unsignedInteger(method);
  return isRequest ? interface->weightAt(method) : Weight::usual;
}

}  // namespace

void Connection::onFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) {
  if (!helloReceived_) return receiveHello(bytes);
  // One read may bring a message and the files of the next: each takes those that it claims, served or refused.
  std::vector<FileDescriptor> claimed;
  if (!files.empty()) claimed = takeFirst(files, countSealedArguments(bytes));
  if (!queue_) return receive(bytes, claimed);
  queueFrame(bytes, claimed);
}

void Connection::queueFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) {
  if (options_.quota->account->bytes() > options_.quota->grantedNameBytes()) {
    return protocolViolation("its user holds too much here for a message to wait");
  }
  BufferRef copy = Buffer::copyOf(bytes, *options_.quota->account, limits::kQueuedMessageBytes);
  if (confidential_) copy->makeSecret();
  queuedBytes_ += bytes.size();
  adjustReading();
  Executor* const slow = weightOf(bytes, exportedInterface_) == Weight::slow ? slowRequests_ : nullptr;
  Block work = [self = shared_from_this(), frame = std::move(copy), taken = std::move(files)]() mutable {
    if (self->state_ == State::running) self->receive(frame->bytes(), taken);
    if (self->confidential_) wipeStack();
    self->transport_->perform([self, size = frame->size()] {
      self->queuedBytes_ -= size;
      self->adjustReading();
    });
  };
  if (slow != nullptr) {
    queue_->asyncOn(*slow, std::move(work));
  } else {
    queue_->async(std::move(work));
  }
}

void Connection::onOversizedFrame(std::size_t sizeBytes, std::span<const std::byte> beginning) {
  if (!helloReceived_) return protocolViolation(fmt::format("a hello of {} bytes is too large", sizeBytes));
  const std::optional<Envelope> envelope = peekEnvelope(beginning);
  const std::string text =
      fmt::format("a message of {} bytes is too large; at most {} are taken", sizeBytes, limits::kFrameBytes);
  if (envelope && envelope->kind != MessageKind::request && envelope->kind != MessageKind::oneWay) {
    return runOnQueue([self = shared_from_this(), text] { self->interrupted(text); });
  }
  runOnQueue([self = shared_from_this(), id = envelope ? envelope->requestId : std::nullopt, text] {
    if (id) {
      if (*id <= self->lastRequestId_) {
        self->refuse(id, FailureCode::badRequestId, "request ids must rise");
        return;
      }
      self->lastRequestId_ = *id;
    }
    self->refuse(id, FailureCode::tooLarge, text);
  });
}

void Connection::onClosed(std::string_view reason) {
  if (!reason.empty() && state_ == State::running) logger().error("{} dropped: {}", description(), reason);
  if (farewell_.isNull() && !reason.empty()) farewell_ = String(reason);
  end({}, /*transportIsClosed=*/true);
}

void Connection::receiveHello(std::span<const std::byte> bytes) {
  cbor::Cursor cursor(bytes);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  std::uint64_t version = 0;
  if (!cursor.array(count) || count < 1 || !cursor.unsignedInteger(kind))
    return protocolViolation("its hello cannot be decoded");
  if (kind == static_cast<std::uint64_t>(MessageKind::goodbye)) {
    std::string_view text;
    if (count == 2 && cursor.text(text) && !text.empty()) farewell_ = String(text);
    return end({}, /*transportIsClosed=*/false);
  }
  if (kind != static_cast<std::uint64_t>(MessageKind::hello)) return protocolViolation("its first message is no hello");
  if (!cursor.unsignedInteger(version)) return protocolViolation("its hello cannot be decoded");
  if (version != kProtocolVersion) {
    return protocolViolation(
        fmt::format("protocol version {} is not known here; this side speaks {}", version, kProtocolVersion));
  }
  std::shared_ptr<const MethodNumbers> numbers = readMethodNumbers(cursor, remoteInterface_);
  std::uint64_t optionCount = 0;
  bool takesDescriptors = false;
  bool understood = numbers != nullptr && count == 4 && cursor.map(optionCount);
  for (std::uint64_t i = 0; understood && i < optionCount; ++i) {
    std::string_view option;
    understood = cursor.text(option) &&
                 (option == "descriptors" ? cursor.boolean(takesDescriptors) : cursor.item(limits::kDepth).has_value());
  }
  if (!understood || !cursor.atEnd()) return protocolViolation("its hello cannot be decoded");
  methodNumbers_ = std::move(numbers);
  peerTakesDescriptors_ = takesDescriptors;
  helloReceived_ = true;
  transport_->liftHelloBound();
  if (caller_ && caller_->readyHandler) std::exchange(caller_->readyHandler, {})();
}

void Connection::receive(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) {
  cbor::Cursor cursor(bytes);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  if (!cursor.array(count) || !cursor.unsignedInteger(kind)) {
    refuse(std::nullopt, FailureCode::undecodable, kUndecodable);
  } else if (kind == static_cast<std::uint64_t>(MessageKind::request)) {
    receiveRequest(cursor, count, files);
  } else if (kind == static_cast<std::uint64_t>(MessageKind::oneWay)) {
    receiveOneWay(cursor, count, files);
  } else if (kind == static_cast<std::uint64_t>(MessageKind::reply)) {
    receiveAnswer(MessageKind::reply, cursor, count, files);
  } else if (kind == static_cast<std::uint64_t>(MessageKind::failure)) {
    receiveAnswer(MessageKind::failure, cursor, count, files);
  } else if (kind == static_cast<std::uint64_t>(MessageKind::goodbye)) {
    receiveGoodbye(cursor, count);
  } else if (kind == static_cast<std::uint64_t>(MessageKind::hello)) {
    transport_->perform([self = shared_from_this()] { self->protocolViolation("it said hello twice"); });
  } else {
    refuse(std::nullopt, FailureCode::undecodable, fmt::format("there is no message of kind {}", kind));
  }
}

void Connection::receiveGoodbye(cbor::Cursor& cursor, std::uint64_t count) {
  std::string_view text;
  if (count != 2 || !cursor.text(text) || !cursor.atEnd()) return interrupted("a goodbye that cannot be decoded");
  transport_->perform([self = shared_from_this(), words = text.empty() ? String(nullptr) : String(text)] {
    if (self->state_ == State::ended) return;
    self->farewell_ = words;
    self->end({}, /*transportIsClosed=*/false);
  });
}

void Connection::receiveRequest(cbor::Cursor& cursor, std::uint64_t count, std::vector<FileDescriptor>& files) {
  std::uint64_t id = 0;
  std::uint64_t method = 0;
  if (!cursor.unsignedInteger(id)) return refuse(std::nullopt, FailureCode::undecodable, kUndecodable);
  if (id <= lastRequestId_) return refuse(id, FailureCode::badRequestId, "request ids must rise");
  lastRequestId_ = id;
  if (count != 4 || !cursor.unsignedInteger(method)) return refuse(id, FailureCode::undecodable, kUndecodable);
  Interface::Call call{shared_from_this(), id};
  return dispatch(method, cursor, files, call);
}

void Connection::receiveOneWay(cbor::Cursor& cursor, std::uint64_t count, std::vector<FileDescriptor>& files) {
  std::uint64_t method = 0;
  if (count != 3 || !cursor.unsignedInteger(method)) {
    return refuse(std::nullopt, FailureCode::undecodable, kUndecodable);
  }
  Interface::Call call{nullptr, 0};
  return dispatch(method, cursor, files, call);
}

void Connection::dispatch(std::uint64_t method, cbor::Cursor& cursor, std::vector<FileDescriptor>& files,
                          Interface::Call& call) {
  const std::optional<std::uint64_t> id = call.route ? std::optional(call.requestId) : std::nullopt;
  if (exportedInterface_ == nullptr || exportedInterface_->dispatchAt(method) == nullptr || !exportedObject_) {
    return refuse(id, FailureCode::unknownMethod, fmt::format("there is no method {}", method));
  }
  std::uint64_t argumentCount = 0;
  if (!cursor.array(argumentCount)) return refuse(id, FailureCode::undecodable, kUndecodable);
  const Weight weight = exportedInterface_->weightAt(method);
  if (weight == Weight::heavy && call.route && !queue_) {
    return queueHeavy(
        {method, argumentCount, Buffer::copyOf(cursor.rest(), *options_.quota->account), std::move(files), std::move(call)});
  }
  ArgumentReader reader(cursor.rest(), files, options_.receiveLimitBytes, *options_.quota);
  reader.setConfidential(confidential_);
  reader.setBrief(weight == Weight::brief && !queue_);
  if (weight == Weight::lasting && !reader.mayHoldMore()) return refuseOverQuota(id);
  if (call.route && changeUnanswered(1) > limits::kUnansweredRequests && !readingPaused_) {
    transport_->perform([self = shared_from_this()] { self->adjustReading(); });
  }
  return serve(method, reader, argumentCount, call);
}

void Connection::queueHeavy(HeavyRequest request) {
  changeUnanswered(1);
  heavyRequestId_ = request.call.requestId;
  adjustReading();
  options_.heavyTurns->enter(options_.quota->account, [self = shared_from_this(), held = std::move(request)]() mutable {
    self->serveHeavy(std::move(held));
  });
}

void Connection::serveHeavy(HeavyRequest request) {
  if (state_ != State::running) return requestAnswered(request.call.requestId);
  ArgumentReader reader(request.arguments->bytes(), request.files, options_.receiveLimitBytes, *options_.quota);
  serve(request.method, reader, request.argumentCount, request.call);
}

void Connection::serve(std::uint64_t method, ArgumentReader& reader, std::uint64_t argumentCount, Interface::Call& call) {
  const std::optional<std::uint64_t> id = call.route ? std::optional(call.requestId) : std::nullopt;
  const std::span<const std::byte> arguments = reader.cursor.rest();
  const bool outer = std::exchange(inCallee_, true);
  const bool fits = exportedInterface_->dispatchAt(method)(exportedObject_.get(), reader, argumentCount, call);
  inCallee_ = outer;
  if (fits) return;
  if (call.route) {
    transport_->perform([self = shared_from_this(), requestId = call.requestId] { self->requestAnswered(requestId); });
  }
  if (reader.isOverQuota()) return refuseOverQuota(id);
  if (!areWellFormedArguments(arguments, argumentCount)) return refuse(id, FailureCode::undecodable, kUndecodable);
  refuse(id, FailureCode::wrongArguments, fmt::format("the arguments do not fit {}", exportedInterface_->selectors()[method]));
}

void Connection::receiveAnswer(MessageKind kind, cbor::Cursor& cursor, std::uint64_t count,
                               std::vector<FileDescriptor>& files) {
  std::uint64_t id = 0;
  if (kind == MessageKind::failure && count == 4 && cursor.null()) {
    return interrupted("the peer could not serve a one-way message");
  }
  decltype(Caller::expected)::node_type found;
  if (cursor.unsignedInteger(id) && caller_) found = caller_->expected.extract(id);
  if (found.empty()) {
    return interrupted("an answer to no request");
  }
  Expected expected = std::move(found.mapped());
  if (kind == MessageKind::failure) {
    std::uint64_t code = 0;
    std::string_view text;
    if (count != 4 || !cursor.unsignedInteger(code) || !cursor.text(text) || !cursor.atEnd()) {
      expected.onError(connectionError(ConnectionErrorCode::badReply, "the peer's failure cannot be decoded"));
      return interrupted("a failure that cannot be decoded");
    }
    const Value userInfo = Value::map({{std::string(NSLocalizedDescriptionKey), text}, {"failureCode", code}});
    expected.onError(
        Error(kConnectionErrorDomain, static_cast<std::int64_t>(ConnectionErrorCode::refused), Dictionary(userInfo)));
    return;
  }
  std::uint64_t resultCount = 0;
  const bool framed = count == 3 && cursor.array(resultCount);
  ArgumentReader reader(cursor.rest(), files, options_.receiveLimitBytes);
  if (framed && expected.read(reader, resultCount)) return;
  expected.onError(connectionError(ConnectionErrorCode::badReply, "the peer's answer does not fit the method"));
  interrupted("an answer that does not fit its method");
}

void Connection::refuse(std::optional<std::uint64_t> requestId, FailureCode code, std::string_view text) {
  OutgoingMessage message;
  writeFailure(message, requestId, code, text);
  transport_->perform(
      [self = shared_from_this(), moved = std::move(message)] { self->transport_->send(moved, EndOfTurn::Urgency::urgent); });
  interrupted(text);
}

void Connection::refuseOverQuota(std::optional<std::uint64_t> requestId) {
  refuse(requestId, FailureCode::overQuota,
         fmt::format("uid {} holds {} bytes here; at most {} are granted", peer_.uid, options_.quota->account->bytes(),
                     options_.quota->grantedBytes()));
}

void Connection::interrupted(std::string_view why) {
  // Once per connection: who sends nonsense must not fill the log.
  if (!std::exchange(interruptionLogged_, true)) logger().error("{} sent what cannot be served: {}", description(), why);
  if (!interruptionHandler_) return;
  const bool outer = std::exchange(inCallee_, true);
  interruptionHandler_();
  inCallee_ = outer;
}

void Connection::protocolViolation(std::string_view what) {
  if (state_ == State::running) logger().error("{} dropped: {}", description(), what);
  end(what, /*transportIsClosed=*/false);
}

}  // namespace keel::xpc
