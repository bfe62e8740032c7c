// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/request_server.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "runtime/dispatch/current_user.h"
#include "runtime/xpc/connection.h"

namespace keel::xpc {

namespace {

constexpr std::string_view kUndecodable = "the message cannot be decoded";

// Limits of a batch of replies.
constexpr std::size_t kMaximumBatchedReplyBytes = 256;
constexpr std::size_t kMaximumBatchedReplies = 64;

void writeReplyHead(OutgoingMessage& message, std::uint64_t requestId, std::size_t resultCount) {
  cbor::Writer writer = message.writer();
  writer.array(3);
  writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::reply));
  writer.unsignedInteger(requestId);
  writer.array(resultCount);
}

}  // namespace

Weight RequestServer::weightOf(std::span<const std::byte> frame) const {
  cbor::Cursor cursor(frame);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  std::uint64_t id = 0;
  std::uint64_t method = 0;
  const bool isRequest = interface_ != nullptr && cursor.array(count) &&
                         cursor.unsignedInteger(kind) &&
                         kind == static_cast<std::uint64_t>(MessageKind::request) &&
                         cursor.unsignedInteger(id) && cursor.unsignedInteger(method);
  return isRequest ? interface_->weightAt(method) : Weight::usual;
}

void RequestServer::receiveRequest(cbor::Cursor& cursor, std::uint64_t count,
                                   SealedValues& values) {
  std::uint64_t id = 0;
  std::uint64_t method = 0;
  if (!cursor.unsignedInteger(id))
    return refuse(std::nullopt, FailureCode::undecodable, kUndecodable);
  if (id <= lastRequestId_) return refuse(id, FailureCode::badRequestId, "request ids must rise");
  lastRequestId_ = id;
  if (count != 4 || !cursor.unsignedInteger(method))
    return refuse(id, FailureCode::undecodable, kUndecodable);
  Interface::Call call{connection_.shared_from_this(), id};
  dispatch(method, cursor, values, call);
}

void RequestServer::receiveOneWay(cbor::Cursor& cursor, std::uint64_t count, SealedValues& values) {
  std::uint64_t method = 0;
  if (count != 3 || !cursor.unsignedInteger(method)) {
    return refuse(std::nullopt, FailureCode::undecodable, kUndecodable);
  }
  Interface::Call call{nullptr, 0};
  dispatch(method, cursor, values, call);
}

void RequestServer::refuseOversized(std::optional<std::uint64_t> requestId, std::string_view text) {
  if (requestId) {
    if (*requestId <= lastRequestId_)
      return refuse(requestId, FailureCode::badRequestId, "request ids must rise");
    lastRequestId_ = *requestId;
  }
  refuse(requestId, FailureCode::tooLarge, text);
}

void RequestServer::dispatch(std::uint64_t method, cbor::Cursor& cursor, SealedValues& values,
                             Interface::Call& call) {
  const std::optional<std::uint64_t> id = call.route ? std::optional(call.requestId) : std::nullopt;
  if (interface_ == nullptr || interface_->dispatchAt(method) == nullptr || !object_) {
    return refuse(id, FailureCode::unknownMethod, fmt::format("there is no method {}", method));
  }
  std::uint64_t argumentCount = 0;
  if (!cursor.array(argumentCount)) return refuse(id, FailureCode::undecodable, kUndecodable);
  const Weight weight = interface_->weightAt(method);
  const MemoryQuota& quota = connection_.quota();
  if (weight == Weight::heavy && call.route && !connection_.hasQueue()) {
    return queueHeavy({method, argumentCount, Buffer::copyOf(cursor.rest(), *quota.account),
                       std::move(values), std::move(call)});
  }
  ArgumentReader reader(cursor.rest(), values, connection_.options().receiveLimitBytes, quota);
  reader.setConfidential(connection_.isConfidential());
  if (weight == Weight::brief && !connection_.hasQueue())
    reader.setNameCache(connection_.context().names());
  if (weight == Weight::lasting && !reader.isWithinQuota()) return refuseOverQuota(id);
  if (call.route && ledger_.takeRequest()) {
    onIoThread([this, alive = connection_.shared_from_this()] { decideOnReading(); });
  }
  serve(method, reader, argumentCount, call);
}

void RequestServer::queueHeavy(HeavyRequest request) {
  ledger_.takeRequest();
  ledger_.beginHeavy(request.call.requestId);
  decideOnReading();
  connection_.options().heavyRequests->enter(
      connection_.quota().account,
      [this, alive = connection_.shared_from_this(), held = std::move(request)]() mutable {
        serveHeavy(std::move(held));
      });
}

void RequestServer::serveHeavy(HeavyRequest request) {
  const WorkingFor user(connection_.effectiveUserIdentifier());
  if (!connection_.isValid()) return requestAnswered(request.call.requestId);
  ArgumentReader reader(request.arguments->bytes(), request.values,
                        connection_.options().receiveLimitBytes, connection_.quota());
  serve(request.method, reader, request.argumentCount, request.call);
}

void RequestServer::serve(std::uint64_t method, ArgumentReader& reader, std::uint64_t argumentCount,
                          Interface::Call& call) {
  const std::optional<std::uint64_t> id = call.route ? std::optional(call.requestId) : std::nullopt;
  const std::span<const std::byte> arguments = reader.cursor.rest();
  const bool fits = connection_.inCallee(
      [&] { return interface_->dispatchAt(method)(object_.get(), reader, argumentCount, call); });
  if (fits) return;
  if (call.route) {
    onIoThread([this, alive = connection_.shared_from_this(), requestId = call.requestId] {
      requestAnswered(requestId);
    });
  }
  if (reader.isOverQuota()) return refuseOverQuota(id);
  if (!areWellFormedArguments(arguments, argumentCount))
    return refuse(id, FailureCode::undecodable, kUndecodable);
  refuse(id, FailureCode::wrongArguments,
         fmt::format("the arguments do not fit {}", interface_->selectors()[method]));
}

void RequestServer::refuse(std::optional<std::uint64_t> requestId, FailureCode code,
                           std::string_view text) {
  OutgoingMessage message;
  writeFailure(message, requestId, code, text);
  onIoThread([this, alive = connection_.shared_from_this(), moved = std::move(message)] {
    connection_.transport().send(moved, EndOfTurnHook::Urgency::urgent);
  });
  connection_.interrupted(text);
}

void RequestServer::refuseOverQuota(std::optional<std::uint64_t> requestId) {
  const MemoryQuota& quota = connection_.quota();
  refuse(requestId, FailureCode::overQuota,
         fmt::format("uid {} holds {} bytes here; at most {} are granted",
                     connection_.effectiveUserIdentifier(), quota.account->bytes(),
                     quota.grantedBytes()));
}

// Sends the answer that `build(message)` writes.
template <class Build>
void RequestServer::answer(std::uint64_t requestId, Build build) {
  if (connection_.transport().onIoThread()) {
    const MessagePool::Borrowed message = connection_.context().messages().borrow();
    build(*message);
    connection_.transport().send(*message, EndOfTurnHook::Urgency::urgent);
    return requestAnswered(requestId);
  }
  // The pool belongs to the I/O thread.
  OutgoingMessage message;
  build(message);
  onIoThread([this, alive = connection_.shared_from_this(), requestId, moved = std::move(message)] {
    connection_.transport().send(moved, EndOfTurnHook::Urgency::urgent);
    requestAnswered(requestId);
  });
}

void RequestServer::sendReply(std::uint64_t requestId, std::size_t resultCount,
                              ReplyRoute::WriteResults write, void* results) {
  // The number of the peer's unread bytes is known on the I/O thread only.
  const bool takesDescriptors =
      connection_.transport().onIoThread() && connection_.takesDescriptors();
  answer(requestId, [&](OutgoingMessage& message) {
    message.begin();
    writeReplyHead(message, requestId, resultCount);
    ArgumentWriter arguments{message, takesDescriptors};
    write(results, arguments);
    if (message.finish()) return;
    writeFailure(message, requestId, FailureCode::unsendable,
                 fmt::format("the answer is longer than a frame can be ({} bytes)",
                             limits::kFrameBytesFromDaemon));
  });
}

void RequestServer::sendFailure(std::uint64_t requestId, FailureCode code, std::string_view text) {
  answer(requestId,
         [&](OutgoingMessage& message) { writeFailure(message, requestId, code, text); });
}

bool RequestServer::sendReplies(std::span<const std::uint64_t> requestIds, std::size_t resultCount,
                                ReplyRoute::WriteResults write, void* results) {
  if (connection_.isConfidential() || !connection_.transport().onIoThread()) return false;
  MessagePool& messages = connection_.context().messages();
  const MessagePool::Borrowed encoded = messages.borrow();
  encoded->begin();
  ArgumentWriter arguments{*encoded, /*takesDescriptors=*/false};
  write(results, arguments);
  if (encoded->wireBytes() > kMaximumBatchedReplyBytes) return false;
  const MessagePool::Borrowed message = messages.borrow();
  for (std::span<const std::uint64_t> rest = requestIds; !rest.empty();) {
    const std::span<const std::uint64_t> some =
        rest.first(std::min(rest.size(), kMaximumBatchedReplies));
    rest = rest.subspan(some.size());
    message->clear();
    for (const std::uint64_t id : some) {
      message->beginNext();
      writeReplyHead(*message, id, resultCount);
      message->writer().encoded(encoded->bytes().subspan(kLengthBytes));
      message->finish();
    }
    connection_.transport().send(*message, EndOfTurnHook::Urgency::urgent);
    for (const std::uint64_t id : some) requestAnswered(id);
  }
  return true;
}

void RequestServer::checkBegun() {
  ledger_.setChecking(true);
  decideOnReading();
}

void RequestServer::checkEnded() {
  ledger_.setChecking(false);
  decideOnReading();
}

void RequestServer::messageQueued(std::size_t sizeBytes) {
  ledger_.messageQueued(sizeBytes);
  decideOnReading();
}

void RequestServer::messageServed(std::size_t sizeBytes) {
  ledger_.messageServed(sizeBytes);
  decideOnReading();
}

void RequestServer::requestAnswered(std::uint64_t requestId) {
  ledger_.requestAnswered();
  if (ledger_.endHeavy(requestId)) {
    // Deferred until the end of the turn has counted the backlog that this answer causes.
    connection_.transport().performLater(
        [queue = connection_.options().heavyRequests, user = connection_.quota().account] {
          queue->leave(user);
        });
  }
  if (ledger_.isPaused()) decideOnReading();
}

void RequestServer::decideOnReading() {
  if (!connection_.isValid()) return;
  if (const std::optional<bool> pause = ledger_.decide())
    connection_.transport().setReading(!*pause);
}

void RequestServer::onIoThread(Block block) {
  connection_.transport().perform(std::move(block));
}

}  // namespace keel::xpc
