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

// Authorization Services: lets one process use the rights of another that passed it a reference.

namespace keel {

using OSStatus = std::int32_t;
using AuthorizationFlags = std::uint32_t;

inline constexpr OSStatus errAuthorizationSuccess = 0;
inline constexpr OSStatus errAuthorizationInvalidSet = -60001;  // no rights were asked for
inline constexpr OSStatus errAuthorizationInvalidRef =
    -60002;  // no reference, or not that process's own
inline constexpr OSStatus errAuthorizationDenied = -60005;  // the process does not hold the right
inline constexpr OSStatus errAuthorizationInteractionNotAllowed =
    -60007;  // it would after interactive authentication
inline constexpr OSStatus errAuthorizationInternal = -60008;  // the authority could not be queried
inline constexpr OSStatus errAuthorizationInvalidFlags = -60011;  // unknown flags

inline constexpr AuthorizationFlags kAuthorizationFlagDefaults = 0;

// A right by name.
struct AuthorizationItem {
  const char* name;
  std::size_t valueLength = 0;
  const void* value = nullptr;
  std::uint32_t flags = 0;
};

// A serialized reference; docs/protocol.md has its layout.
struct AuthorizationExternalForm {
  std::array<std::byte, 32> bytes{};
};
inline constexpr std::size_t kAuthorizationExternalFormLength = sizeof(AuthorizationExternalForm);

// A reference: the process whose rights it stands for. A value that holds no system resource: one
// that is never freed goes away with its request.
using AuthorizationRef = std::shared_ptr<const xpc::PeerIdentity>;

// Abstract so that tests can replace the system. From any thread; all calls may block for seconds.
class Authorization {
 public:
  virtual ~Authorization() = default;

  // Creates the reference that `form`, received from `peer`, describes. A form is valid only from
  // the very process that made it: pid, start time and user match those that the kernel reported
  // for `peer`. errAuthorizationInvalidRef otherwise.
  virtual OSStatus AuthorizationCreateFromExternalForm(const AuthorizationExternalForm& form,
                                                       const xpc::PeerIdentity& peer,
                                                       AuthorizationRef& authorization) = 0;

  // Succeeds if the process holds all of `rights` now, without interaction. Any failure is a
  // refusal.
  virtual OSStatus AuthorizationCopyRights(const AuthorizationRef& authorization,
                                           std::span<const AuthorizationItem> rights,
                                           AuthorizationFlags flags) = 0;

  // Ends the reference; granted rights stay.
  virtual OSStatus AuthorizationFree(AuthorizationRef& authorization, AuthorizationFlags flags) = 0;
};

// Returns the form of a reference to the calling process, to be sent to a service on the process's
// own connection. Fails if /proc cannot be read.
std::expected<AuthorizationExternalForm, std::error_code> AuthorizationMakeExternalForm();

// Requests a right for the calling process, interactively where policy requires it: a polkit agent
// then asks for an administrator's password. Blocks for at most `patience`. The right lasts as long
// as policy allows.
OSStatus AuthorizationObtainRight(const char* right, std::chrono::milliseconds patience);

// Returns this machine's: polkit grants rights, each under the action of the same name. The
// superuser holds every right; without polkit, no other user holds any. Lives as long as the
// process.
Authorization& systemAuthorization();

}  // namespace keel
