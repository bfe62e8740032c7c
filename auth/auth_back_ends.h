// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include "platform/authenticator/authenticator.h"
#include "platform/authorization/authorization.h"
#include "platform/membership/membership.h"
#include "runtime/foundation/random_bytes.h"

namespace keel {

// The auth handlers' back ends, by default this machine's. All are borrowed and outlive the
// handlers.
struct AuthBackEnds {
  Membership& membership = systemMembership();
  Authenticators& authenticators = systemAuthenticators();
  Authorization& authorization = systemAuthorization();
  std::function<int(std::span<std::byte>)> randomBytes = SecRandomCopyBytes;
};

}  // namespace keel
