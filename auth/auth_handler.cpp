// SPDX-License-Identifier: Apache-2.0
#include "auth/auth_handler.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "auth/auth_service.h"
#include "platform/product/product.h"
#include "runtime/logging/log_system.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("auth");

Logger& runtimeLog() {
  static Logger& runtime = _loggerForCategory("runtime");
  return runtime;
}

constexpr const char* kAdminGroup = "admin";

// The last letter never occurs: characters are taken modulo 62.
constexpr std::string_view kAuthIDLetters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ01234567890";
constexpr unsigned kAuthIDModulus = 62;
constexpr std::string_view kAuthIDPrefix = "myob-";

// Time limit for flushing the last message to the journal before the process exits.
constexpr std::chrono::milliseconds kLogPatience{500};

Error error(int code) {
  return Error(KLNErrorDomain, code);
}

Error statusError(OSStatus status) {
  return Error(NSOSStatusErrorDomain, status);
}

}  // namespace

void KLNAuthHandler::authServiceCheckWithHandler(xpc::Reply<Error> handler) {
  handler(nullptr);
}

void KLNAuthHandler::authenticateUser(String user, String withPassword,
                                      xpc::Reply<Error> andHandler) {
  andHandler(authenticate(user, withPassword));
}

Error KLNAuthHandler::authenticate(const String& user, const String& password) {
  if (!backEnds_.authenticators.verifyUserName(user, password)) return error(errAuthFailed);
  if (Error refusal = requireAdministrator(user)) return refusal;
  recordUser(user);
  return nullptr;
}

void KLNAuthHandler::authenticateForUser(String user, Data form, xpc::Reply<Error> withHandler) {
  withHandler(authenticate(user, form));
}

Error KLNAuthHandler::authenticate(const String& user, const Data& externalForm) {
  const auto bytes = externalForm.bytes();
  log.debug("authenitcateForUser: auth request with authRef for {}", user);
  if (bytes.size() != kAuthorizationExternalFormLength) {
    log.fault("authenitcateForUser: authRefext is the wrong size (expected {} got {})",
              kAuthorizationExternalFormLength, bytes.size());
  }
  AuthorizationExternalForm form;
  std::ranges::copy(bytes.first(std::min(bytes.size(), form.bytes.size())), form.bytes.begin());
  const auto connection = xpcConnection();
  AuthorizationRef reference;
  OSStatus status = backEnds_.authorization.AuthorizationCreateFromExternalForm(
      form, connection ? connection->peer() : xpc::PeerIdentity(), reference);
  if (status != errAuthorizationSuccess) {
    log.fault("authenitcateForUser: failed to unpack the authRef error = {}", statusError(status));
    return statusError(status);
  }
  const std::array rights{AuthorizationItem{.name = kManageDaemonsRight}};
  status = backEnds_.authorization.AuthorizationCopyRights(reference, rights,
                                                           kAuthorizationFlagDefaults);
  if (status != errAuthorizationSuccess) {
    log.fault("authenitcateForUser: didn't find the correct right in the authRef error = {}",
              statusError(status));
    return statusError(status);
  }
  if (Error refusal = requireAdministrator(user)) return refusal;
  // Not on a refusal: then the reference ends, unfreed, with this request.
  backEnds_.authorization.AuthorizationFree(reference, kAuthorizationFlagDefaults);
  recordUser(user);
  return nullptr;
}

Error KLNAuthHandler::requireAdministrator(const String& user) const {
  if (isAdminUser(user)) return nullptr;
  log.debug("user is not in admin group");
  return error(errNotAdmin);
}

void KLNAuthHandler::recordUser(const String& user) {
  const auto connection = xpcConnection();
  // Without a connection there is no session to record under.
  if (!connection || user.isNull()) return;
  // A copy: records outlive the request, whose text is charged to the client.
  KLNAuthService::defaultService()->addUser(user.view(), connection->auditSessionIdentifier());
}

bool KLNAuthHandler::isAdminUser(const String& user) const {
  if (user.isNull()) return false;
  std::string name(user.view());
  if (auto shortName = backEnds_.membership.shortName(name)) name = std::move(*shortName);
  Membership::Identifier member;
  Membership::Identifier group;
  bool isMember = false;
  if (backEnds_.membership.mbr_user_name_to_uuid(name, member) != 0) return false;
  if (backEnds_.membership.mbr_group_name_to_uuid(kAdminGroup, group) != 0) return false;
  if (backEnds_.membership.mbr_check_membership(member, group, isMember) != 0) return false;
  return isMember;
}

void KLNAuthHandler::authGetDefaultRealm(xpc::Reply<String, Error> handler) {
  String realm = backEnds_.authenticators.defaultRealm();
  log.debug("authGetDefaultRealm: returning {}", realm);
  handler(std::move(realm), nullptr);
}

void KLNAuthHandler::isAuthedASID(std::int32_t asid, xpc::Reply<bool> withHandler) {
  KLNAuthService::defaultService()->isAuthedASID(
      asid, [reply = std::move(withHandler)](bool authenticated) mutable { reply(authenticated); });
}

String KLNAuthHandler::getNextAuthID() const {
  std::array<std::byte, 33> random;
  if (backEnds_.randomBytes(random) != 0) {
    const int problem = errno;
    runtimeLog().error("AuthService unable to create AuthID error = {} exiting...", problem);
    flushLog(kLogPatience);
    std::abort();
  }
  std::array<char, random.size()> letters;
  std::ranges::transform(random, letters.begin(), [](std::byte byte) {
    return kAuthIDLetters[std::to_integer<unsigned>(byte) % kAuthIDModulus];
  });
  letters.back() = '\0';
  const std::string text = std::string(kAuthIDPrefix) + letters.data();
  // The ID lives as long as its challenge, whose charge includes it.
  const auto connection = xpcConnection();
  return connection ? String(text, *connection->quota().account, kChallengeBytes)
                    : String(std::string_view(text));
}

void KLNAuthHandler::addAuthToTable(std::shared_ptr<QZAuthenticator> authenticator,
                                    const String& withID) {
  authsInProgress_.insert_or_assign(withID, std::move(authenticator));
}

std::shared_ptr<QZAuthenticator> KLNAuthHandler::getAuthForID(const String& authID) const {
  const auto found = authsInProgress_.find(authID);
  return found != authsInProgress_.end() ? found->second : nullptr;
}

void KLNAuthHandler::removeAuthForID(const String& authID) {
  authsInProgress_.erase(authID);
}

void KLNAuthHandler::authDigestStartWithHandler(xpc::Reply<String, String, Error> handler) {
  String authID = getNextAuthID();
  String challenge = start(backEnds_.authenticators.serverDigestAuthenticator(), authID);
  log.debug("authDigestStartWithHandler starting auth for {}", authID);
  handler(std::move(challenge), std::move(authID), nullptr);
}

void KLNAuthHandler::authBasicStartWithHandler(xpc::Reply<String, String, Error> handler) {
  String authID = getNextAuthID();
  String challenge = start(backEnds_.authenticators.serverBasicAuthenticator(), authID);
  log.debug("authBasicStartWithHandler starting auth for {}", authID);
  handler(std::move(challenge), std::move(authID), nullptr);
}

String KLNAuthHandler::start(const std::shared_ptr<QZAuthenticator>& authenticator,
                             const String& authID) {
  authenticator->setMethod("GET");
  String challenge = authenticator->generateInitialResponse();
  addAuthToTable(authenticator, authID);
  return challenge;
}

void KLNAuthHandler::authValidate(String answer, String andID,
                                  xpc::Reply<String, String, Error> withHandler) {
  const auto authenticator = getAuthForID(andID);
  log.debug("authValidate: validating auth for {}", andID);
  if (!authenticator) return withHandler(nullptr, nullptr, error(errAuthIDNotFound));
  String response;
  String user;
  Error outcome = error(errAuthFailed);
  if (authenticator->validateChallenge(answer, &response)) {
    user = authenticator->userName();
    outcome = requireAdministrator(user);
    if (!outcome) recordUser(user);
  } else {
    response = nullptr;
  }
  removeAuthForID(andID);
  withHandler(std::move(response), std::move(user), std::move(outcome));
}

void KLNAuthHandler::authBasicValidate(
    const String& answer, const String& andID,
    std::move_only_function<void(bool, String, Error)> withHandler) {
  const auto authenticator = getAuthForID(andID);
  if (!authenticator) return withHandler(false, nullptr, error(errAuthIDNotFound));
  const bool valid = authenticator->validateChallenge(answer, nullptr);
  const String user = valid ? authenticator->userName() : String();
  if (valid) recordUser(user);
  removeAuthForID(andID);
  withHandler(valid, user, valid ? Error() : error(errAuthFailed));
}

void KLNAuthHandler::connectionInterupted() {
  const auto connection = xpcConnection();
  runtimeLog().debug("AuthService connection from {} interrupted",
                     connection ? connection->auditSessionIdentifier() : 0);
}

void KLNAuthHandler::connectionInvalidated() {
  const auto connection = xpcConnection();
  runtimeLog().debug("AuthService connection from {} invalidated",
                     connection ? connection->auditSessionIdentifier() : 0);
}

}  // namespace keel
