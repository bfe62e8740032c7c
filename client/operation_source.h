// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <utility>

#include "client/client_core.h"
#include "client/diagnosis.h"

// Wraps the operations of a client as the requests that programs use.

namespace keel {

template <class T>
class OperationSource final : public RequestSource<T> {
 public:
  OperationSource(std::shared_ptr<ClientCore> core, std::shared_ptr<OperationOf<T>> operation)
      : core_(std::move(core)), operation_(std::move(operation)) {}

  ClientResult<typename RequestSource<T>::Settled> begin(std::chrono::milliseconds timeout,
                                                         ResultCallback<T> callback) override {
    operation_->callback = std::move(callback);
    typename RequestSource<T>::Settled settled(operation_, &operation_->settled);
    if (auto submitted = core_->submit(operation_, timeout); !submitted)
      return std::unexpected(std::move(submitted.error()));
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
Request<T> requestFor(const std::shared_ptr<ClientCore>& core,
                      std::shared_ptr<OperationOf<T>> operation) {
  return Request<T>(std::make_unique<OperationSource<T>>(core, std::move(operation)),
                    core->options().requestTimeout);
}

// Creates the core of a client on the library's thread.
std::shared_ptr<ClientCore> coreOf(ClientService service, ClientOptions options);

}  // namespace keel
