// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "platform/authenticator/authenticator.h"
#include "platform/authenticator/digest_store.h"
#include "platform/authenticator/pam_account_check.h"
#include "platform/authenticator/refusal_time.h"

namespace keel {

// Authenticates the accounts of one machine; the type behind systemAuthenticators(). The
// authenticators that it returns must not outlive it.
class SystemAuthenticators final : public Authenticators {
 public:
  SystemAuthenticators(PamAccountCheck::Settings passwords, std::string digestFile);

  bool verifyUserName(const String& userName, const String& password) override;
  String defaultRealm() override;
  std::shared_ptr<QZAuthenticator> serverDigestAuthenticator() override;
  std::shared_ptr<QZAuthenticator> serverBasicAuthenticator() override;

 private:
  const RefusalTime refusalTime_;
  PamAccountCheck accounts_;
  DigestStore digests_;
};

}  // namespace keel
