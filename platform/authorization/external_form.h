// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "platform/authorization/authorization.h"

// The external form of an authorization reference: 32 bytes that name one process. They are not
// secret and prove nothing by themselves; only the sender matters.

namespace keel {

struct ProcessName {
  std::uint32_t pid;
  std::uint32_t uid;
  std::uint64_t startTime;  // field 22 of /proc/PID/stat
  friend bool operator==(const ProcessName&, const ProcessName&) = default;
};

AuthorizationExternalForm externalFormOf(const ProcessName& process);
// Returns nothing unless the bytes are a form of a known version; a truncated form padded with
// zeros is not one.
std::optional<ProcessName> processOf(const AuthorizationExternalForm& form);

}  // namespace keel
