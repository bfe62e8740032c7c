// SPDX-License-Identifier: Apache-2.0
#include "client/auth_client.h"

#include <utility>

#include "client/auth_operations.h"
#include "client/diagnosis.h"
#include "client/operation_source.h"
#include "platform/authorization/authorization.h"
#include "platform/product/product.h"

namespace keel {

std::unique_ptr<KLNAuthClient> KLNAuthClient::create(ClientOptions options) {
  return std::make_unique<KLNAuthClient>(coreOf(ClientService::auth, std::move(options)));
}

KLNAuthClient::KLNAuthClient(std::shared_ptr<ClientCore> core) : core_(std::move(core)) {
  core_->start();
}

KLNAuthClient::~KLNAuthClient() {
  core_->abandon();
}

void KLNAuthClient::close() {
  core_->close();
}

Request<void> KLNAuthClient::check() {
  return requestFor(core_, operations::checkService());
}

Request<void> KLNAuthClient::authenticate(String user, const Secret& password) {
  return requestFor(core_, operations::authenticate(std::move(user), password));
}

Request<void> KLNAuthClient::authenticateByReference(String user, Data form) {
  return requestFor(core_, operations::authenticateByReference(std::move(user), std::move(form)));
}

ClientResult<Data> KLNAuthClient::makeForm(AuthInteraction interaction,
                                           std::chrono::milliseconds timeout) {
  if (interaction == AuthInteraction::allowed) {
    const OSStatus status = AuthorizationObtainRight(kManageDaemonsRight, timeout);
    if (status != errAuthorizationSuccess) return std::unexpected(diagnosis::ofRight(status));
  }
  const auto form = AuthorizationMakeExternalForm();
  if (!form) return std::unexpected(diagnosis::ofForm(form.error()));
  return Data(form->bytes);
}

Request<std::string> KLNAuthClient::defaultRealm() {
  return requestFor(core_, operations::defaultRealm());
}

Request<AuthChallenge> KLNAuthClient::startBasic() {
  return requestFor(core_, operations::startChallenge(operations::Scheme::basic));
}

Request<AuthChallenge> KLNAuthClient::startDigest() {
  return requestFor(core_, operations::startChallenge(operations::Scheme::digest));
}

Request<AuthProof> KLNAuthClient::validate(const Secret& answer, std::string id) {
  return requestFor(core_, operations::validate(answer, id));
}

Request<bool> KLNAuthClient::isAuthenticated(std::int32_t auditSession) {
  return requestFor(core_, operations::isAuthenticated(auditSession));
}

}  // namespace keel
