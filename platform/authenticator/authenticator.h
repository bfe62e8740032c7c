// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/foundation/string.h"

namespace keel {

// The server side of one HTTP authentication challenge (RFC 7616, RFC 7617), good for exactly one
// answer. On one queue at a time; owned by the caller that awaits the answer.
class QZAuthenticator {
 public:
  virtual ~QZAuthenticator() = default;

  // Sets the HTTP method that the answer is computed for. Called before validateChallenge().
  virtual void setMethod(String method) = 0;

  // Returns the challenge: values of the WWW-Authenticate header field, one per line, the preferred
  // one first. The same on every call.
  virtual String generateInitialResponse() = 0;

  // Returns true if `answer`, the value of the Authorization header field, is correct for this
  // challenge and the account may be used now. May block for seconds, and delays a refusal. True at
  // most once: an authenticator takes one answer and refuses all further ones, whatever the first
  // one's outcome. On success, if `generateResponse` is not null, stores the value of the
  // Authentication-Info header field there for the client to verify, or null.
  virtual bool validateChallenge(const String& answer, String* generateResponse) = 0;

  // Returns the user named by the accepted answer; null until then.
  virtual String userName() const = 0;
};

// The same on every machine and permanent: a password's digest is bound to one realm and useless in
// any other.
inline constexpr const char* kDefaultRealm = "com.vantor.keeld";

// Authenticates this machine's accounts. From any thread. Abstract so that tests can replace the
// accounts.
class Authenticators {
 public:
  virtual ~Authenticators() = default;

  // Returns true if the password is the account's and the account may be used now; false for null
  // arguments. May block for seconds. A wrong password, an unknown user and a locked or expired
  // account are indistinguishable, in time too.
  virtual bool verifyUserName(const String& userName, const String& password) = 0;

  // Returns the realm of the challenges.
  virtual String defaultRealm() = 0;

  virtual std::shared_ptr<QZAuthenticator> serverDigestAuthenticator() = 0;
  virtual std::shared_ptr<QZAuthenticator> serverBasicAuthenticator() = 0;
};

// Returns this machine's: PAM service "keeld" for passwords, and the file of digest credentials.
// Lives as long as the process.
Authenticators& systemAuthenticators();

}  // namespace keel
