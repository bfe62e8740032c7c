// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

#include "platform/authorization/authorization.h"

// Client of polkit (org.freedesktop.PolicyKit1.Authority.CheckAuthorization), this machine's
// authority on rights.

namespace keel {

enum class Interaction : std::uint8_t { none, allowed };

struct RightAnswer {
  OSStatus status;
  std::string problem;  // why polkit could not be queried, for errAuthorizationInternal
};

// Checks whether polkit grants the right to that very process. Denied if there is no polkit. Blocks
// for at most `patience`, which with interaction includes typing a password. From any thread.
RightAnswer askPolkit(const xpc::PeerIdentity& process, const char* right, Interaction interaction,
                      std::chrono::milliseconds patience);

}  // namespace keel
