// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "runtime/foundation/file_descriptor.h"

namespace keel::bench {

enum class Role : std::uint8_t { publisher, subscriber };

// One connection as its system sees it.
struct Session {
  explicit Session(Role givenRole) : role(givenRole) {}

  const Role role;
  std::string out;            // not sent yet
  FileDescriptor file;        // goes with the first byte of `out`
  std::string afterGreeting;  // must wait until the system has greeted
  std::uint64_t nextNumber = 1;
  int stage = 0;                    // of the greeting; each system has its own
  std::deque<std::size_t> batches;  // sizes of those that wait for their common acknowledgement

  // Of a large frame that has come in part: what is missing, and what it will count for.
  std::size_t missingBytes = 0;
  bool isDelivery = false;
};

}  // namespace keel::bench
