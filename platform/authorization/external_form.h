// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "platform/authorization/authorization.h"

// The external form of an authorization reference: 32 bytes that name one process. They are no
// secret and prove nothing by themselves; what counts is who hands them over.

namespace keel {

struct ProcessName {
  std::uint32_t pid;
  std::uint32_t uid;
  std::uint64_t startTime;  // field 22 of /proc/PID/stat
  friend bool operator==(const ProcessName&, const ProcessName&) = default;
};

AuthorizationExternalForm externalFormOf(const ProcessName& process);
// Nothing when the bytes are no form of a version that is known here; so for what was cut off and
// filled up with zeros.
std::optional<ProcessName> processOf(const AuthorizationExternalForm& form);

}  // namespace keel
