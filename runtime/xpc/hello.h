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

// The first message of each side: the version it speaks, the methods it exports, its options.

namespace keel::xpc {

// What a peer said of itself.
struct PeerHello {
  // From the index of a method in our remote interface to its index in the peer's list; negative
  // where the peer has none.
  TransportContext::MethodIndexes methodIndexes;
  bool takesDescriptors = false;
};
// It turned us away.
struct PeerGoodbye {
  std::string_view text;  // in the message; may be empty
};
// It does not speak this protocol; the text says in what.
struct PeerViolation {
  std::string text;
};

void writeHello(OutgoingMessage& message, std::span<const std::string_view> selectors,
                bool takesDescriptors);

// `remoteInterface` is what the peer is expected to export; null: nothing.
std::variant<PeerHello, PeerGoodbye, PeerViolation> readHello(std::span<const std::byte> bytes,
                                                              const Interface* remoteInterface,
                                                              TransportContext& context);

}  // namespace keel::xpc
