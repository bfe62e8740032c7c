// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/hello.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "runtime/foundation/cbor_cursor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

constexpr std::string_view kUndecodable = "its hello cannot be decoded";

// Matches a hello's list of selectors with the methods of `interface`.
std::optional<std::vector<std::int64_t>> readMethodIndexes(cbor::Cursor& cursor,
                                                           const Interface* interface) {
  const std::span<const std::string_view> wanted =
      interface != nullptr ? interface->selectors() : std::span<const std::string_view>();
  std::uint64_t count = 0;
  if (!cursor.array(count)) return std::nullopt;
  std::vector<std::int64_t> indexes(wanted.size(), -1);
  for (std::uint64_t index = 0; index < count; ++index) {
    std::string_view selector;
    if (!cursor.text(selector)) return std::nullopt;
    const auto found = std::find(wanted.begin(), wanted.end(), selector);
    if (found != wanted.end())
      indexes[static_cast<std::size_t>(found - wanted.begin())] = static_cast<std::int64_t>(index);
  }
  return indexes;
}

bool readOptions(cbor::Cursor& cursor, bool& takesDescriptors) {
  std::uint64_t count = 0;
  if (!cursor.map(count)) return false;
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string_view option;
    if (!cursor.text(option)) return false;
    const bool understood = option == "descriptors" ? cursor.boolean(takesDescriptors)
                                                    : cursor.item(limits::kDepth).has_value();
    if (!understood) return false;
  }
  return cursor.atEnd();
}

}  // namespace

void writeHello(OutgoingMessage& message, std::span<const std::string_view> selectors,
                bool takesDescriptors) {
  cbor::Writer writer = message.begin();
  writer.array(4);
  writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::hello));
  writer.unsignedInteger(kProtocolVersion);
  writer.array(selectors.size());
  for (const std::string_view selector : selectors) writer.text(selector);
  writer.map(1);
  writer.text("descriptors");
  writer.boolean(takesDescriptors);
  message.finish();
}

std::variant<PeerHello, PeerGoodbye, PeerViolation> readHello(std::span<const std::byte> bytes,
                                                              const Interface* remoteInterface,
                                                              TransportContext& context) {
  const PeerViolation undecodable{std::string(kUndecodable)};
  cbor::Cursor cursor(bytes);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  std::uint64_t version = 0;
  if (!cursor.array(count) || count < 1 || !cursor.unsignedInteger(kind)) return undecodable;
  if (kind == static_cast<std::uint64_t>(MessageKind::goodbye)) {
    PeerGoodbye goodbye;
    if (count == 2) cursor.text(goodbye.text);
    return goodbye;
  }
  if (kind != static_cast<std::uint64_t>(MessageKind::hello))
    return PeerViolation{"its first message is no hello"};
  if (!cursor.unsignedInteger(version)) return undecodable;
  if (version != kProtocolVersion) {
    return PeerViolation{fmt::format("protocol version {} is not known here; this side speaks {}",
                                     version, kProtocolVersion)};
  }
  auto indexes = readMethodIndexes(cursor, remoteInterface);
  PeerHello hello;
  if (!indexes || count != 4 || !readOptions(cursor, hello.takesDescriptors)) return undecodable;
  hello.methodIndexes = context.shared(std::move(*indexes));
  return hello;
}

}  // namespace keel::xpc
