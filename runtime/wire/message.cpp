// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/message.h"

#include <array>
#include <cstring>
#include <limits>

#include "runtime/foundation/check.h"
#include "runtime/foundation/sealed_memory.h"
#include "runtime/foundation/secret.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

// Consumes an inline argument.
bool skipInlineArgument(cbor::Cursor& cursor) {
  constexpr std::uint8_t kArrayType = 4;
  const bool isArray = cursor.majorType() == kArrayType;
  return cursor.item(limits::kDepth + (isArray ? limits::kArrayWrapping : 0)).has_value();
}

}  // namespace

std::optional<std::uint64_t> skipSealedArgument(cbor::Cursor& cursor) {
  cbor::Cursor attempt = cursor;
  std::uint64_t number = 0;
  std::uint64_t sizeBytes = 0;
  if (!attempt.tag(number) || number != kSealedMemoryTag || !attempt.unsignedInteger(sizeBytes))
    return std::nullopt;
  cursor = attempt;
  return sizeBytes;
}

std::optional<std::uint64_t> skipToArguments(cbor::Cursor& cursor) {
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  if (!cursor.array(count) || !cursor.unsignedInteger(kind)) return std::nullopt;
  const bool isRequest = kind == static_cast<std::uint64_t>(MessageKind::request);
  const bool isOneWay = kind == static_cast<std::uint64_t>(MessageKind::oneWay);
  const bool isReply = kind == static_cast<std::uint64_t>(MessageKind::reply);
  if (!isRequest && !isOneWay && !isReply) return std::nullopt;
  // A request has its id and its method first, a one-way message its method, a reply its id.
  std::uint64_t number = 0;
  for (int i = 0; i < (isRequest ? 2 : 1); ++i) {
    if (!cursor.unsignedInteger(number)) return std::nullopt;
  }
  std::uint64_t argumentCount = 0;
  if (!cursor.array(argumentCount)) return std::nullopt;
  return argumentCount;
}

void OutgoingMessage::wipe() {
  keel::wipe(bytes_.bytes());
}

void OutgoingMessage::clear() {
  bytes_.clear();
  splices_.clear();
  files_.clear();
  splicedBytes_ = 0;
}

cbor::Writer OutgoingMessage::beginNext() {
  // Files travel with the first byte of the message.
  KEEL_CHECK(files_.empty());
  frameBegin_ = bytes_.size();
  frameBeginOnWire_ = wireBytes();
  bytes_.append(std::array<std::byte, kLengthBytes>{});
  return writer();
}

bool OutgoingMessage::finish() {
  const std::size_t length = wireBytes() - frameBeginOnWire_ - kLengthBytes;
  if (length > limits::kFrameBytesFromDaemon) return false;
  const std::span<std::byte> field = bytes_.bytes().subspan(frameBegin_, kLengthBytes);
  for (std::size_t i = 0; i < kLengthBytes; ++i)
    field[i] = static_cast<std::byte>(length >> (8 * i));
  return true;
}

void OutgoingMessage::share() {
  if (!splices_.empty() || !files_.empty()) return;
  splices_.push_back({0, Buffer::copyOf(bytes_)});
  splicedBytes_ = bytes_.size();
  bytes_.clear();
}

void OutgoingMessage::item(const BufferRef& encoded) {
  if (encoded->size() < limits::kSharedPieceBytes) {
    writer().encoded(encoded->bytes());
    return;
  }
  splices_.push_back({bytes_.size(), encoded});
  splicedBytes_ += encoded->size();
}

bool OutgoingMessage::sealedItem(const BufferRef& encoded) {
  BufferRef file = encoded;
  if (file->sealedFile() < 0) {
    auto made = sealedMemoryOf(encoded->bytes());
    if (!made) return false;
    auto mapped = openSealedMemory(std::move(*made), encoded->size());
    if (!mapped) return false;
    file = std::move(*mapped);
  }
  cbor::Writer items = writer();
  items.tag(kSealedMemoryTag);
  items.unsignedInteger(file->size());
  files_.push_back(std::move(file));
  return true;
}

std::optional<Envelope> peekEnvelope(std::span<const std::byte> beginningOfFrame) {
  cbor::Cursor cursor(beginningOfFrame);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  if (!cursor.array(count) || !cursor.unsignedInteger(kind)) return std::nullopt;
  if (kind > static_cast<std::uint64_t>(MessageKind::goodbye)) return std::nullopt;
  Envelope envelope{static_cast<MessageKind>(kind), std::nullopt};
  std::uint64_t requestId = 0;
  if (envelope.kind == MessageKind::request && cursor.unsignedInteger(requestId))
    envelope.requestId = requestId;
  return envelope;
}

bool areWellFormedArguments(std::span<const std::byte> items, std::uint64_t count) {
  cbor::Cursor cursor(items);
  for (std::uint64_t i = 0; i < count; ++i) {
    if (!skipSealedArgument(cursor) && !skipInlineArgument(cursor)) return false;
  }
  return cursor.atEnd();
}

std::size_t countSealedArguments(std::span<const std::byte> frame) {
  cbor::Cursor cursor(frame);
  const std::optional<std::uint64_t> argumentCount = skipToArguments(cursor);
  if (!argumentCount) return 0;
  std::size_t sealedCount = 0;
  for (std::uint64_t i = 0; i < *argumentCount; ++i) {
    if (skipSealedArgument(cursor)) {
      ++sealedCount;
    } else if (!skipInlineArgument(cursor)) {
      break;
    }
  }
  return sealedCount;
}

void writeFailure(OutgoingMessage& message, std::optional<std::uint64_t> requestId,
                  FailureCode code, std::string_view text) {
  cbor::Writer writer = message.begin();
  writer.array(4);
  writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::failure));
  if (requestId) {
    writer.unsignedInteger(*requestId);
  } else {
    writer.null();
  }
  writer.unsignedInteger(static_cast<std::uint64_t>(code));
  writer.text(text);
  message.finish();
}

void writeGoodbye(OutgoingMessage& message, std::string_view text) {
  cbor::Writer writer = message.begin();
  writer.array(2);
  writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::goodbye));
  writer.text(text);
  message.finish();
}

}  // namespace keel::xpc
