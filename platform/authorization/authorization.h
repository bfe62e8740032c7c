// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <span>
#include <system_error>

#include "runtime/transport/peer_identity.h"

// Authorization Services: what lets one process act on the rights of another that handed it a
// reference.

namespace keel {

using OSStatus = std::int32_t;
using AuthorizationFlags = std::uint32_t;

inline constexpr OSStatus errAuthorizationSuccess = 0;
inline constexpr OSStatus errAuthorizationInvalidSet = -60001;  // no rights were asked for
inline constexpr OSStatus errAuthorizationInvalidRef =
    -60002;  // no reference, or not that process's own
inline constexpr OSStatus errAuthorizationDenied = -60005;  // the process does not hold the right
inline constexpr OSStatus errAuthorizationInteractionNotAllowed =
    -60007;  // it would, if somebody proved who he is first
inline constexpr OSStatus errAuthorizationInternal =
    -60008;  // whoever grants rights could not be asked
inline constexpr OSStatus errAuthorizationInvalidFlags = -60011;  // flags that are not understood

inline constexpr AuthorizationFlags kAuthorizationFlagDefaults = 0;

// A right by name.
struct AuthorizationItem {
  const char* name;
  std::size_t valueLength = 0;
  const void* value = nullptr;
  std::uint32_t flags = 0;
};

// A reference as it travels; docs/protocol.md has its layout.
struct AuthorizationExternalForm {
  std::array<std::byte, 32> bytes{};
};
inline constexpr std::size_t kAuthorizationExternalFormLength = sizeof(AuthorizationExternalForm);

// A reference: the process whose rights it stands for. A value, which holds nothing of the
// system's: one that nobody frees is gone with the request that made it.
using AuthorizationRef = std::shared_ptr<const xpc::PeerIdentity>;

// Abstract, so that tests can stand in for the system. From any thread; all calls may block for
// seconds.
class Authorization {
 public:
  virtual ~Authorization() = default;

  // Makes the reference that `form` describes, which came from `peer`. A form counts only when it
  // comes from the very process that made it: pid, start time and user are those that the kernel
  // gave for `peer`. errAuthorizationInvalidRef otherwise.
  virtual OSStatus AuthorizationCreateFromExternalForm(const AuthorizationExternalForm& form,
                                                       const xpc::PeerIdentity& peer,
                                                       AuthorizationRef& authorization) = 0;

  // Whether the process holds all of `rights` now, without asking anybody. Whatever goes wrong is a
  // refusal.
  virtual OSStatus AuthorizationCopyRights(const AuthorizationRef& authorization,
                                           std::span<const AuthorizationItem> rights,
                                           AuthorizationFlags flags) = 0;

  // Ends the reference; what the process was granted stays.
  virtual OSStatus AuthorizationFree(AuthorizationRef& authorization, AuthorizationFlags flags) = 0;
};

// The form of a reference to the calling process itself, to be handed to a service on a connection
// of its own. Fails where /proc cannot be read.
std::expected<AuthorizationExternalForm, std::error_code> AuthorizationMakeExternalForm();

// Asks for a right of the calling process, where policy wants it with interaction: an agent of
// polkit then asks somebody to prove to be an administrator. Blocks, for `patience` at most. The
// right stays for as long as policy says.
OSStatus AuthorizationObtainRight(const char* right, std::chrono::milliseconds patience);

// That of this machine: polkit grants rights, each under the action of the same name. The superuser
// holds every right, and without polkit he alone. Lives as long as the process.
Authorization& systemAuthorization();

}  // namespace keel
