// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

#include "platform/authorization/authorization.h"

// polkit (org.freedesktop.PolicyKit1.Authority.CheckAuthorization): who holds which right on this
// machine.

namespace keel {

enum class Interaction : std::uint8_t { none, allowed };

struct RightAnswer {
  OSStatus status;
  std::string problem;  // why it could not be asked, for errAuthorizationInternal
};

// Whether polkit grants the right to that very process. Denied also where there is no polkit.
// Blocks, for `patience` at most; with interaction, while somebody is asked for a password. From
// any thread.
RightAnswer askPolkit(const xpc::PeerIdentity& process, const char* right, Interaction interaction,
                      std::chrono::milliseconds patience);

}  // namespace keel
