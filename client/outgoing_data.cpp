// SPDX-License-Identifier: Apache-2.0
#include "client/outgoing_data.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "runtime/foundation/cbor.h"
#include "runtime/foundation/utf8.h"
#include "runtime/wire/limits.h"

namespace keel {

namespace {

// Upper bound of the envelope's size.
constexpr std::size_t kEnvelopeBytes = 256;

ClientError badArgument(std::string message) {
  return {ClientError::Kind::badArgument, std::move(message)};
}

std::optional<ClientError> checkSize(std::size_t bytes, const char* what) {
  if (bytes + kEnvelopeBytes <= xpc::limits::kFrameBytes) return std::nullopt;
  return ClientError(ClientError::Kind::tooLarge,
                     fmt::format("{} of {} bytes is larger than one message may be ({} bytes)",
                                 what, bytes, xpc::limits::kFrameBytes));
}

// Checks what the encoder requires: finite dates, and a bounded depth, since it recurses.
std::optional<ClientError> checkEncodable(const Value& value, std::size_t depthLeft) {
  if (const Date* date = value.as<Date>();
      date != nullptr && !std::isfinite(date->secondsSinceEpoch)) {
    return badArgument("a date in the data is not a finite number of seconds");
  }
  const auto* list = value.as<Value::List>();
  const auto* map = value.as<Value::Map>();
  if (list == nullptr && map == nullptr) return std::nullopt;
  if (depthLeft == 0)
    return badArgument(
        fmt::format("the data is nested deeper than {} levels", xpc::limits::kDepth));
  std::optional<ClientError> fault;
  if (list != nullptr) {
    for (auto at = list->begin(); at != list->end() && !fault; ++at)
      fault = checkEncodable(*at, depthLeft - 1);
  } else {
    for (auto at = map->begin(); at != map->end() && !fault; ++at)
      fault = checkEncodable(at->value, depthLeft - 1);
  }
  return fault;
}

}  // namespace

std::optional<ClientError> checkText(const String& text, const char* what) {
  if (!isUtf8(text.view())) return badArgument(fmt::format("{} is not valid UTF-8", what));
  return checkSize(text.view().size(), what);
}

ClientResult<Dictionary> encodeData(const Value& data, std::size_t otherBytes) {
  if (!data.isNull() && !data.isMap())
    return std::unexpected(badArgument("the data must be a map or null"));
  if (auto fault = checkEncodable(data, xpc::limits::kDepth))
    return std::unexpected(std::move(*fault));
  Dictionary encoded(data);
  if (encoded.isNull()) return encoded;
  if (auto fault = checkSize(encoded.encoded().size() + otherBytes, "data"))
    return std::unexpected(std::move(*fault));
  if (const auto valid = cbor::validate(encoded.encoded(), xpc::limits::kDepth); !valid) {
    return std::unexpected(
        badArgument(fmt::format("the data cannot be sent: {}", cbor::describe(valid.error()))));
  }
  return encoded;
}

}  // namespace keel
