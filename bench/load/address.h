// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "runtime/foundation/file_descriptor.h"

namespace keel::bench {

// The address of a system: the path of a Unix socket or a port of the loopback device, as in
// "/run/x" and "4222".
class Address {
 public:
  explicit Address(std::string text) : text_(std::move(text)) {}

  // Returns a new, non-blocking connection. Throws std::system_error.
  FileDescriptor connect() const;

 private:
  std::string text_;
};

}  // namespace keel::bench
