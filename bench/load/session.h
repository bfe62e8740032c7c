// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "runtime/foundation/file_descriptor.h"

namespace keel::bench {

enum class Role : std::uint8_t { publisher, subscriber };

// The protocol state of a connection.
struct Session {
  explicit Session(Role givenRole) : role(givenRole) {}

  const Role role;
  std::string out;            // not sent yet
  FileDescriptor file;        // sent with the first byte of `out`
  std::string afterGreeting;  // sent once the system has greeted
  std::uint64_t nextNumber = 1;
  int stage = 0;                    // of the greeting; each system has its own
  std::deque<std::size_t> batches;  // sizes of the unacknowledged batches

  // Of a large incomplete frame: the bytes missing, and its counts.
  std::size_t missingBytes = 0;
  bool isDelivery = false;
};

}  // namespace keel::bench
