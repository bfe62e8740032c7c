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

// A challenge of HTTP authentication, to be answered on the client that started it.
struct AuthChallenge {
  std::string text;  // values of the header field WWW-Authenticate, one a line
  std::string id;
};

// What became of a right answer.
struct AuthProof {
  std::string user;
  std::optional<std::string>
      response;  // the value of the header field Authentication-Info, when there is one
};

// Whether somebody may be asked to prove to be an administrator.
enum class AuthInteraction : std::uint8_t { none, allowed };

// A program's link to keeld's authentication service: prove that a user is an administrator, member
// of the group "admin". Each success counts from then on for everything in the audit session of
// this process, until keeld ends; KLNClient::authCheck() and isAuthenticated() ask for it.
//
// Threads, callbacks, connection, fork(2) and destruction are as with KLNClient. Checks may take
// seconds, and are made one after another. Wrong credentials of any kind, unknown users, and
// accounts that are locked or have expired are `authFailed`; right ones of somebody else
// `notAdmin`. Passwords are wiped wherever this library held them.
class KLNAuthClient {
 public:
  static std::unique_ptr<KLNAuthClient> create(ClientOptions options = {});
  // For tests, which bring a core of their own.
  explicit KLNAuthClient(std::shared_ptr<ClientCore> core);
  ~KLNAuthClient();
  KLNAuthClient(const KLNAuthClient&) = delete;
  KLNAuthClient& operator=(const KLNAuthClient&) = delete;

  // Ends the connection, and with it open challenges. Requests that wait end with `closed`, and so
  // does every later one.
  void close();

  // Whether the service is alive.
  Request<void> check();

  Request<void> authenticate(String user, const Secret& password);

  // By an authorization reference, as makeForm() yields it, whose process holds the right to manage
  // daemons; `notAuthorized` when it does not, or is another one than this. The user's name need
  // not be that of the process's user.
  Request<void> authenticateByReference(String user, Data form);
  // The external form of a reference that stands for this very process: 32 bytes, good for any
  // number of requests of this process, of no use to others, and no secret. Where policy wants a
  // proof for the right, `allowed` has polkit ask somebody for it first, and blocks meanwhile, for
  // `patience` at most; `notAuthorized` when that failed, or when there is nobody to ask. `none`
  // asks nobody and never blocks. `requestFailed` where /proc cannot be read.
  static ClientResult<Data> makeForm(AuthInteraction interaction,
                                     std::chrono::milliseconds patience = std::chrono::minutes(2));

  // The realm of all challenges.
  Request<std::string> defaultRealm();
  Request<AuthChallenge> startBasic();
  Request<AuthChallenge> startDigest();
  // `answer` is the value of the header field Authorization. Uses the challenge up, right or wrong;
  // `authIDNotFound` afterwards, and after a reconnection. challenge_answer.h makes answers.
  Request<AuthProof> validate(const Secret& answer, std::string id);

  // Whether anybody was proved an administrator in that audit session.
  Request<bool> isAuthenticated(std::int32_t auditSession);

 private:
  std::shared_ptr<ClientCore> core_;
};

}  // namespace keel
