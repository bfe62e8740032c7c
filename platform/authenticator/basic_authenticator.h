// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>

#include "platform/authenticator/account_check.h"
#include "platform/authenticator/authenticator.h"

namespace keel {

// HTTP Basic (RFC 7617): the client sends the account's own name and password. There is no response
// text. A malformed answer is refused immediately.
class BasicAuthenticator final : public QZAuthenticator {
 public:
  // `accounts` is borrowed.
  BasicAuthenticator(std::string realm, AccountCheck& accounts)
      : realm_(std::move(realm)), accounts_(accounts) {}

  // Unused by the scheme.
  void setMethod(String) override {}
  String generateInitialResponse() override;
  bool validateChallenge(const String& answer, String* generateResponse) override;
  String userName() const override { return userName_; }

 private:
  const std::string realm_;
  AccountCheck& accounts_;
  String userName_;
  bool wasAnswered_ = false;
};

}  // namespace keel
