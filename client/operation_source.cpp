// SPDX-License-Identifier: Apache-2.0
#include "client/operation_source.h"

#include <random>

#include "client/library_thread.h"
#include "platform/product/product.h"
#include "runtime/transport/service_socket.h"
#include "runtime/xpc/client_endpoint.h"

namespace keel {

namespace {

std::function<double()> randomNumbers() {
  return [engine = std::minstd_rand(std::random_device()()),
          numbers = std::uniform_real_distribution<double>(0, 1)]() mutable {
    return numbers(engine);
  };
}

}  // namespace

std::shared_ptr<ClientCore> coreOf(ClientService service, ClientOptions options) {
  const std::string directory =
      options.serviceDirectory.empty() ? kServiceDirectory : options.serviceDirectory;
  const char* const name = service == ClientService::notify ? kNotifyServiceName : kAuthServiceName;
  Reactor& reactor = libraryReactor();
  auto connector = [directory, name] {
    return xpc::connectToService(directory, name, libraryTransport());
  };
  return std::make_shared<ClientCore>(reactor, std::move(connector), directory + "/" + name,
                                      std::move(options), randomNumbers(), service,
                                      libraryProcess());
}

}  // namespace keel
