// SPDX-License-Identifier: Apache-2.0
#include <chrono>

#include "platform/authorization/external_form.h"
#include "platform/authorization/polkit.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

// Limit for polkit's answer: it reads rules and accounts, without interaction. An endless rule
// occupies it for 15 s.
constexpr std::chrono::seconds kPolkitPatience{5};

class PolkitAuthorization final : public Authorization {
 public:
  OSStatus AuthorizationCreateFromExternalForm(const AuthorizationExternalForm& form,
                                               const xpc::PeerIdentity& peer,
                                               AuthorizationRef& authorization) override {
    const std::optional<ProcessName> named = processOf(form);
    if (!named || peer.pid <= 0 || peer.startTime == 0) return errAuthorizationInvalidRef;
    if (*named != ProcessName{static_cast<std::uint32_t>(peer.pid), peer.uid, peer.startTime})
      return errAuthorizationInvalidRef;
    authorization = std::make_shared<const xpc::PeerIdentity>(peer);
    return errAuthorizationSuccess;
  }

  OSStatus AuthorizationCopyRights(const AuthorizationRef& authorization,
                                   std::span<const AuthorizationItem> rights,
                                   AuthorizationFlags flags) override {
    if (!authorization) return errAuthorizationInvalidRef;
    if (flags != kAuthorizationFlagDefaults) return errAuthorizationInvalidFlags;
    if (rights.empty()) return errAuthorizationInvalidSet;
    for (const AuthorizationItem& right : rights) {
      if (const OSStatus status = copyRight(*authorization, right.name);
          status != errAuthorizationSuccess)
        return status;
    }
    return errAuthorizationSuccess;
  }

  OSStatus AuthorizationFree(AuthorizationRef& authorization, AuthorizationFlags flags) override {
    if (!authorization) return errAuthorizationInvalidRef;
    if (flags != kAuthorizationFlagDefaults) return errAuthorizationInvalidFlags;
    authorization.reset();
    return errAuthorizationSuccess;
  }

 private:
  static OSStatus copyRight(const xpc::PeerIdentity& process, const char* right) {
    // polkit grants the superuser everything whatever its rules; so do not depend on it here.
    if (process.uid == 0) return errAuthorizationSuccess;
    const RightAnswer answer = askPolkit(process, right, Interaction::none, kPolkitPatience);
    if (answer.status == errAuthorizationInternal) {
      _loggerForCategory("runtime").error(
          "polkit could not say whether pid {} (uid {}) holds the right {}: {}", process.pid,
          process.uid, right, answer.problem);
    }
    return answer.status;
  }
};

}  // namespace

std::expected<AuthorizationExternalForm, std::error_code> AuthorizationMakeExternalForm() {
  const auto ours = xpc::PeerIdentity::ofThisProcess();
  if (!ours) return std::unexpected(ours.error());
  return externalFormOf({static_cast<std::uint32_t>(ours->pid), ours->uid, ours->startTime});
}

OSStatus AuthorizationObtainRight(const char* right, std::chrono::milliseconds patience) {
  const auto ours = xpc::PeerIdentity::ofThisProcess();
  if (!ours) return errAuthorizationInternal;
  if (ours->uid == 0) return errAuthorizationSuccess;
  return askPolkit(*ours, right, Interaction::allowed, patience).status;
}

Authorization& systemAuthorization() {
  // Never destroyed: other threads use it until the process exits.
  static Authorization& authorization = *new PolkitAuthorization;
  return authorization;
}

}  // namespace keel
