// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "runtime/transport/transport_context.h"
#include "runtime/wire/message.h"
#include "runtime/xpc/interface.h"

// The first message of each side: its protocol version, the methods it exports, its options.

namespace keel::xpc {

// The content of a peer's hello.
struct PeerHello {
  // Maps the index of a method in our remote interface to its index in the peer's list; negative
  // where the peer has none.
  TransportContext::MethodIndexes methodIndexes;
  bool takesDescriptors = false;
};
// The peer turned us away.
struct PeerGoodbye {
  std::string_view text;  // in the message; may be empty
};
// The peer violates the protocol; the text says how.
struct PeerViolation {
  std::string text;
};

void writeHello(OutgoingMessage& message, std::span<const std::string_view> selectors,
                bool takesDescriptors);

// `remoteInterface` is the interface that the peer should export, or null.
std::variant<PeerHello, PeerGoodbye, PeerViolation> readHello(std::span<const std::byte> bytes,
                                                              const Interface* remoteInterface,
                                                              TransportContext& context);

}  // namespace keel::xpc
