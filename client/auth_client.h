// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "client/client.h"
#include "runtime/foundation/secret.h"

namespace keel {

// A challenge of HTTP authentication, to be answered by the client that started it.
struct AuthChallenge {
  std::string text;  // values of the header field WWW-Authenticate, one per line
  std::string id;
};

// The result of a correct answer.
struct AuthProof {
  std::string user;
  std::optional<std::string> response;  // the value of the header field Authentication-Info, if any
};

// Selects whether a user may be asked for administrator proof.
enum class AuthInteraction : std::uint8_t { none, allowed };

// A program's client of keeld's authentication service: proves that a user is an administrator, a
// member of the group "admin". A success holds for the whole audit session of this process until
// keeld ends; KLNClient::authCheck() and isAuthenticated() query it.
//
// Threads, callbacks, connection, fork(2) and destruction are as with KLNClient. Checks may take
// seconds and run one after another. Wrong credentials of any kind, unknown users, and locked or
// expired accounts are `authFailed`; correct credentials of a user who is no administrator are
// `notAdmin`. Every buffer of this library that held a password is wiped.
class KLNAuthClient {
 public:
  static std::unique_ptr<KLNAuthClient> create(ClientOptions options = {});
  // For tests, which supply their own core.
  explicit KLNAuthClient(std::shared_ptr<ClientCore> core);
  ~KLNAuthClient();
  KLNAuthClient(const KLNAuthClient&) = delete;
  KLNAuthClient& operator=(const KLNAuthClient&) = delete;

  // Ends the connection and with it open challenges. Pending and later requests end with `closed`.
  void close();

  // Succeeds if the service is alive.
  Request<void> check();

  Request<void> authenticate(String user, const Secret& password);

  // Proves by an authorization reference from makeForm(), whose process holds the right to manage
  // daemons; `notAuthorized` if it does not, or is not this process. `user` need not be the
  // process's own user.
  Request<void> authenticateByReference(String user, Data form);
  // Returns the external form of a reference to this process: 32 bytes, valid for any number of its
  // requests, useless to others, and no secret. Where policy demands a proof for the right,
  // `allowed` has polkit ask a user for it first and blocks for `timeout` at most; `notAuthorized`
  // if that fails or there is no user to ask. `none` asks nobody and never blocks. `requestFailed`
  // if /proc cannot be read.
  static ClientResult<Data> makeForm(AuthInteraction interaction,
                                     std::chrono::milliseconds timeout = std::chrono::minutes(2));

  // Returns the realm of all challenges.
  Request<std::string> defaultRealm();
  Request<AuthChallenge> startBasic();
  Request<AuthChallenge> startDigest();
  // `answer` is the value of the header field Authorization, see challenge_answer.h. Consumes the
  // challenge, whatever the result: `authIDNotFound` afterwards, and after a reconnection.
  Request<AuthProof> validate(const Secret& answer, std::string id);

  // Returns true if any user was proved an administrator in that audit session.
  Request<bool> isAuthenticated(std::int32_t auditSession);

 private:
  std::shared_ptr<ClientCore> core_;
};

}  // namespace keel
