// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <unordered_map>

#include "platform/authenticator/authenticator.h"
#include "platform/authorization/authorization.h"
#include "platform/membership/membership.h"
#include "protocols/auth_proxy.h"
#include "runtime/foundation/random_bytes.h"
#include "runtime/xpc/connection.h"

namespace keel {

// The auth handlers' back ends, by default this machine's. All are borrowed and outlive the
// handlers.
struct AuthBackEnds {
  Membership& membership = systemMembership();
  Authenticators& authenticators = systemAuthenticators();
  Authorization& authorization = systemAuthorization();
  std::function<int(std::span<std::byte>)> randomBytes = SecRandomCopyBytes;
};

// Serves one client of the auth service. Runs on the connection's queue, one request at a time, and
// may block there: passwords, rights and accounts are checked synchronously, and the request is
// answered before its method returns. A success is recorded with KLNAuthService, under the
// connection's audit session, before it is answered. Owned by its connection, to which it refers
// weakly.
class KLNAuthHandler final : public protocols::AuthProxy {
 public:
  // The open challenges of this connection, by ID.
  using AuthTable = std::unordered_map<String, std::shared_ptr<QZAuthenticator>, StringHash>;

  // Approximate size of an open challenge, charged to its user's quota.
  static constexpr std::uint32_t kChallengeBytes = 1536;
  static constexpr std::size_t kAuthIDLength = 37;

  explicit KLNAuthHandler(AuthBackEnds backEnds = {}) : backEnds_(std::move(backEnds)) {}

  void authServiceCheckWithHandler(xpc::Reply<Error> handler) override;
  // Code 5 for wrong credentials of any kind; 14 for correct ones of a user who is not an
  // administrator.
  void authenticateUser(String user, String withPassword, xpc::Reply<Error> andHandler) override;
  // A form that is not 32 bytes long is logged as a fault and still used, truncated or padded with
  // zeros. The user need not be that of the process that the reference stands for.
  void authenticateForUser(String user, Data form, xpc::Reply<Error> withHandler) override;
  void authGetDefaultRealm(xpc::Reply<String, Error> handler) override;
  void authBasicStartWithHandler(xpc::Reply<String, String, Error> handler) override;
  void authDigestStartWithHandler(xpc::Reply<String, String, Error> handler) override;
  // Consumes the challenge, whatever the outcome. With code 14 the response and the user's name are
  // still returned.
  void authValidate(String answer, String andID,
                    xpc::Reply<String, String, Error> withHandler) override;
  // Replies from the strand of KLNAuthService.
  void isAuthedASID(std::int32_t asid, xpc::Reply<bool> withHandler) override;

  // Below: for the listener and this class itself; not callable by clients.

  // Like authValidate(), but accepts users who are not administrators. Unused.
  void authBasicValidate(const String& answer, const String& andID,
                         std::move_only_function<void(bool, String, Error)> withHandler);

  // Returns true if the user, by any of his names, is in the group "admin". Queries the system on
  // every call; false if that fails.
  bool isAdminUser(const String& user) const;

  // Returns a new ID: "myob-" and 32 letters and digits. Ends the process if there are no random
  // bytes: a guessable ID would be worse.
  String getNextAuthID() const;
  void addAuthToTable(std::shared_ptr<QZAuthenticator> authenticator, const String& withID);
  std::shared_ptr<QZAuthenticator> getAuthForID(const String& authID) const;
  void removeAuthForID(const String& authID);

  // Both only log; open challenges and recorded users stay.
  void connectionInterupted();
  void connectionInvalidated();

  const AuthTable& authsInProgress() const { return authsInProgress_; }
  std::shared_ptr<xpc::Connection> xpcConnection() const { return xpcConnection_.lock(); }
  void setXpcConnection(const std::shared_ptr<xpc::Connection>& connection) {
    xpcConnection_ = connection;
  }

 private:
  // Return the reply's error; null if the user was recorded.
  Error authenticate(const String& user, const String& password);
  Error authenticate(const String& user, const Data& externalForm);
  Error requireAdministrator(const String& user) const;
  void recordUser(const String& user);
  String start(const std::shared_ptr<QZAuthenticator>& authenticator, const String& authID);

  const AuthBackEnds backEnds_;
  AuthTable authsInProgress_;
  std::weak_ptr<xpc::Connection> xpcConnection_;
};

}  // namespace keel
