// SPDX-License-Identifier: Apache-2.0
#include "client/client.h"

#include <utility>

#include "client/client_core.h"
#include "client/notify_operations.h"
#include "client/operation_source.h"

namespace keel {

std::unique_ptr<KLNClient> KLNClient::create(ClientOptions options) {
  return std::make_unique<KLNClient>(coreOf(ClientService::notify, std::move(options)));
}

KLNClient::KLNClient(std::shared_ptr<ClientCore> core) : core_(std::move(core)) {
  core_->start();
}

KLNClient::~KLNClient() {
  core_->abandon();
}

void KLNClient::setStateHandler(std::move_only_function<void(const ConnectionState&)> handler) {
  core_->setStateHandler(std::move(handler));
}

void KLNClient::setPublicationHandler(
    std::move_only_function<void(const PublicationState&)> handler) {
  core_->setPublicationHandler(std::move(handler));
}

void KLNClient::close() {
  core_->close();
}

Request<void> KLNClient::publish(String name, Value data, std::uint64_t flags, std::int64_t value) {
  return requestFor(core_, operations::publish(std::move(name), data, flags, value));
}

Request<void> KLNClient::update(String name, Value data) {
  return requestFor(core_, operations::update(std::move(name), data));
}

Request<void> KLNClient::remove(String name) {
  return requestFor(core_, operations::remove(std::move(name)));
}

Request<Subscription> KLNClient::subscribe(String name, EventCallback callback) {
  return requestFor(core_, operations::subscribe(std::move(name), std::move(callback)));
}

Request<std::vector<DumpEntry>> KLNClient::dump(String name, bool withData) {
  return requestFor(core_, operations::dump(std::move(name), withData));
}

Request<std::vector<DumpEntry>> KLNClient::dumpAll(bool withData) {
  return requestFor(core_, operations::dumpAll(withData));
}

Request<bool> KLNClient::authCheck(String user, std::int32_t auditSession) {
  return requestFor(core_, operations::authCheck(std::move(user), auditSession));
}

Request<std::map<std::string, std::string>> KLNClient::moduleTable() {
  return requestFor(core_, operations::moduleTable());
}

Request<std::vector<PublicationState>> KLNClient::publications() {
  return requestFor(core_, operations::publications());
}

}  // namespace keel
