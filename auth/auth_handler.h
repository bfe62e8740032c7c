// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "auth/auth_back_ends.h"
#include "protocols/auth_proxy.h"
#include "runtime/xpc/connection.h"

namespace keel {

// Serves one client of the auth service. Everything runs on the connection's queue, one request at
// a time, and may block there: passwords, rights and accounts are checked at once, and the request
// is answered before its method returns. A success is recorded with KLNAuthService, under the audit
// session of the connection, before it is answered. Held by its connection, to which it refers
// weakly.
class KLNAuthHandler final : public protocols::AuthProxy {
 public:
  // An ID and its challenge on this connection.
  using AuthTable = std::unordered_map<String, std::shared_ptr<QZAuthenticator>, StringHash>;

  // What the challenge of a user is charged to his account for as long as it stays open: about what
  // it takes.
  static constexpr std::uint32_t kChallengeBytes = 1024;
  static constexpr std::size_t kAuthIDLength = 37;

  explicit KLNAuthHandler(AuthBackEnds backEnds = {}) : backEnds_(std::move(backEnds)) {}

  void authServiceCheckWithHandler(xpc::Reply<Error> handler) override;
  // Code 5 for credentials that are wrong, in whatever way; 14 for right ones of somebody who is no
  // administrator.
  void authenticateUser(String user, String withPassword, xpc::Reply<Error> andHandler) override;
  // A form of another length than 32 bytes is logged as a fault and used all the same, cut off or
  // filled up with zeros. The user need have nothing to do with the process that the reference
  // stands for.
  void authenticateForUser(String user, Data form, xpc::Reply<Error> withHandler) override;
  void authGetDefaultRealm(xpc::Reply<String, Error> handler) override;
  void authBasicStartWithHandler(xpc::Reply<String, String, Error> handler) override;
  void authDigestStartWithHandler(xpc::Reply<String, String, Error> handler) override;
  // Uses the challenge up, whatever the outcome. With code 14 the response and the user's name are
  // handed back all the same.
  void authValidate(String answer, String andID,
                    xpc::Reply<String, String, Error> withHandler) override;
  // Replies from the strand of KLNAuthService.
  void isAuthedASID(std::int32_t asid, xpc::Reply<bool> withHandler) override;

  // Below: for the listener, and for this class itself; clients cannot call it.

  // As authValidate(), but anybody's answer counts, administrator or not. Nobody calls it.
  void authBasicValidate(const String& answer, const String& andID,
                         std::move_only_function<void(bool, String, Error)> withHandler);

  // Whether the user is in the group "admin", by whatever name. Asks the system anew each time;
  // false when it cannot tell.
  bool isAdminUser(const String& user) const;

  // A new ID, "myob-" and 32 letters and digits. Ends the process when there are no random bytes:
  // an ID that can be guessed would be worse.
  String getNextAuthID() const;
  void addAuthToTable(std::shared_ptr<QZAuthenticator> authenticator, const String& withID);
  std::shared_ptr<QZAuthenticator> getAuthForID(const String& authID) const;
  void removeAuthForID(const String& authID);

  // Both only log; open challenges and what was recorded stay.
  void connectionInterupted();
  void connectionInvalidated();

  const AuthTable& authsInProgress() const { return authsInProgress_; }
  std::shared_ptr<xpc::Connection> xpcConnection() const { return xpcConnection_.lock(); }
  void setXpcConnection(const std::shared_ptr<xpc::Connection>& connection) {
    xpcConnection_ = connection;
  }

 private:
  // The errors are the replies'; null: recorded.
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
