// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/system_authenticators.h"

#include <utility>

#include "platform/authenticator/basic_authenticator.h"
#include "platform/authenticator/digest_authenticator.h"
#include "platform/authenticator/digest_file.h"

namespace keel {

SystemAuthenticators::SystemAuthenticators(PamAccountCheck::Settings passwords,
                                           std::string digestFile)
    : accounts_(std::move(passwords), refusalTime_), digests_(std::move(digestFile)) {}

bool SystemAuthenticators::verifyUserName(const String& userName, const String& password) {
  return !userName.isNull() && !password.isNull() &&
         accounts_.isPassword(userName.view(), password.view());
}

String SystemAuthenticators::defaultRealm() {
  return kDefaultRealm;
}

std::shared_ptr<QZAuthenticator> SystemAuthenticators::serverDigestAuthenticator() {
  return std::make_shared<DigestAuthenticator>(kDefaultRealm, DigestAuthenticator::Marks::random(),
                                               digests_, accounts_, refusalTime_);
}

std::shared_ptr<QZAuthenticator> SystemAuthenticators::serverBasicAuthenticator() {
  return std::make_shared<BasicAuthenticator>(kDefaultRealm, accounts_);
}

Authenticators& systemAuthenticators() {
  // Never destroyed: other threads may still check a password during exit().
  static auto* const authenticators =
      new SystemAuthenticators({.helper = pathOfKeelPam()}, kDigestFile);
  return *authenticators;
}

}  // namespace keel
