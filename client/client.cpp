// SPDX-License-Identifier: Apache-2.0
#include "client/client.h"

#include <random>
#include <utility>

#include "client/client_core.h"
#include "client/diagnosis.h"
#include "client/notify_operations.h"
#include "platform/dispatch/system.h"
#include "platform/product/product.h"
#include "platform/xpc/client_endpoint.h"

namespace keel {

namespace {

template <class T>
class OperationSource final : public RequestSource<T> {
 public:
  OperationSource(std::shared_ptr<ClientCore> core, std::shared_ptr<OperationOf<T>> operation)
      : core_(std::move(core)), operation_(std::move(operation)) {}

  ClientResult<typename RequestSource<T>::Settled> begin(std::chrono::milliseconds timeout,
                                                         ResultCallback<T> callback) override {
    operation_->callback = std::move(callback);
    typename RequestSource<T>::Settled settled(operation_, &operation_->settled);
    if (auto submitted = core_->submit(operation_, timeout); !submitted) return std::unexpected(std::move(submitted.error()));
    return settled;
  }
  bool onLibraryThread() const override { return core_->onIoThread(); }
  ClientError timedOut(std::chrono::milliseconds timeout) const override {
    return diagnosis::ofTimeout(operation_->what(), timeout);
  }

 private:
  const std::shared_ptr<ClientCore> core_;
  const std::shared_ptr<OperationOf<T>> operation_;
};

template <class T>
Request<T> requestFor(const std::shared_ptr<ClientCore>& core, std::shared_ptr<OperationOf<T>> operation) {
  return Request<T>(std::make_unique<OperationSource<T>>(core, std::move(operation)), core->options().requestTimeout);
}

std::function<double()> randomNumbers() {
  return [engine = std::minstd_rand(std::random_device()()), numbers = std::uniform_real_distribution<double>(0, 1)]() mutable {
    return numbers(engine);
  };
}

}  // namespace

std::unique_ptr<KLNClient> KLNClient::create(ClientOptions options) {
  const std::string directory = options.serviceDirectory.empty() ? kServiceDirectory : options.serviceDirectory;
  Reactor& reactor = ioReactor();
  auto connector = [directory, &reactor] { return xpc::connectToService(directory, kNotifyServiceName, reactor); };
  return std::make_unique<KLNClient>(std::make_shared<ClientCore>(
      reactor, std::move(connector), directory + "/" + kNotifyServiceName, std::move(options), randomNumbers()));
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

void KLNClient::setPublicationHandler(std::move_only_function<void(const PublicationState&)> handler) {
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
  return requestFor(core_, operations::dump("_all", withData));
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
