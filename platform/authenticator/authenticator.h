// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/foundation/string.h"

namespace keel {

// The daemon's side of one challenge of HTTP authentication (RFC 7616, RFC 7617), for exactly one
// answer. On one queue at a time; kept by whoever awaits the answer.
class QZAuthenticator {
 public:
  virtual ~QZAuthenticator() = default;

  // The HTTP method that the answer is computed for. Before the answer is validated.
  virtual void setMethod(String method) = 0;

  // The challenge: values of the header field WWW-Authenticate, one a line, the preferred one
  // first. The same each time.
  virtual String generateInitialResponse() = 0;

  // Whether `answer`, the value of the header field Authorization, is right for this challenge, and
  // the account may be used now. May block for seconds, and waits before it says no. True at most
  // once: an authenticator takes one answer, and refuses all further ones whatever became of the
  // first. When true and `generateResponse` is given, stores there what the client may want to
  // verify (the value of the header field Authentication-Info), or null.
  virtual bool validateChallenge(const String& answer, String* generateResponse) = 0;

  // The user whom the accepted answer named; null until then.
  virtual String userName() const = 0;
};

// The same on every machine and for good: a digest of a password is made for one realm, and is
// worth nothing in another.
inline constexpr const char* kDefaultRealm = "com.vantor.keeld";

// How this machine's accounts prove themselves. From any thread. Abstract, so that tests can stand
// in for the accounts.
class Authenticators {
 public:
  virtual ~Authenticators() = default;

  // Whether that is the account's password, and the account may be used now. False for null
  // arguments. May block for seconds. The answer to a wrong password, an unknown user and a locked
  // or expired account is the same and takes the same time.
  virtual bool verifyUserName(const String& userName, const String& password) = 0;

  // The realm of the challenges.
  virtual String defaultRealm() = 0;

  virtual std::shared_ptr<QZAuthenticator> serverDigestAuthenticator() = 0;
  virtual std::shared_ptr<QZAuthenticator> serverBasicAuthenticator() = 0;
};

// Those of this machine: PAM service "keeld" for passwords, and the file of digest credentials.
// Lives as long as the process.
Authenticators& systemAuthenticators();

}  // namespace keel
