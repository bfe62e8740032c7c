// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "client/client.h"
#include "runtime/foundation/collections.h"

namespace keel {

// A publication of a client, kept to be restored after a reconnection. Lives on the I/O thread.
struct PublicationRecord {
  String name;
  Dictionary item;
  std::uint64_t flags = 0;
  std::int64_t value = 0;
  std::uint64_t order = 0;  // among all publications and subscriptions of the client
  PublicationState::Kind kind = PublicationState::Kind::published;
  Error error;

  PublicationState state() const { return {name, kind, error}; }
};

}  // namespace keel
