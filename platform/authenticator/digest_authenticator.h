// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "platform/authenticator/account_check.h"
#include "platform/authenticator/authenticator.h"
#include "platform/authenticator/digest_answer.h"
#include "platform/authenticator/digest_store.h"
#include "platform/authenticator/refusal_time.h"

namespace keel {

// HTTP Digest (RFC 7616) with SHA-256 or MD5, qop "auth", and a one-time nonce that only this
// authenticator accepts. The challenge has one line per algorithm. Users may hide their names
// (userhash). An answer that does not match the challenge is refused immediately; all other
// refusals, for an unknown user, a wrong answer or a locked account, take the same time.
class DigestAuthenticator final : public QZAuthenticator {
 public:
  // The values that make a challenge unique.
  struct Marks {
    std::string nonce;
    std::string opaque;
    static Marks random();
  };

  // The last three are borrowed.
  DigestAuthenticator(std::string realm, Marks marks, DigestStore& store, AccountCheck& accounts,
                      const RefusalTime& refusalTime);

  void setMethod(String method) override { method_ = std::move(method); }
  String generateInitialResponse() override;
  bool validateChallenge(const String& answer, String* generateResponse) override;
  String userName() const override { return userName_; }

 private:
  bool fits(const DigestAnswer& answer) const;
  // Returns the digest that proves knowledge of the credentials' digest: over METHOD:URI in a
  // request, over :URI in a response.
  std::optional<Secret> proof(const DigestAnswer& answer, std::string_view credentials,
                              std::string_view method) const;

  const std::string realm_;
  const Marks marks_;
  DigestStore& store_;
  AccountCheck& accounts_;
  const RefusalTime& refusalTime_;
  String method_;
  String userName_;
  bool wasAnswered_ = false;
};

}  // namespace keel
