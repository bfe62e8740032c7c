// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "notify/notification_handler.h"
#include "protocols/notify_proxy.h"
#include "protocols/subscriber_proxy.h"
#include "tests/support/fake_client.h"

namespace keel::testing {

// A client of the notify service with its handler, connected as by the listener's delegate.
class NotifyClient : public FakeClient {
 public:
  explicit NotifyClient(ManualExecutor& executor) : NotifyClient(executor, identity(100)) {}
  // Exports `selectors`, in that order; all of them by default.
  NotifyClient(ManualExecutor& executor, xpc::PeerIdentity peer,
               std::optional<std::vector<std::string>> selectors = std::nullopt)
      : FakeClient(executor, std::move(peer)) {
    if (selectors) exportSelectors(std::move(*selectors));
    const auto handler = std::make_shared<KLNNotificationHandler>();
    handler_ = handler;
    connection()->setExportedInterface(
        xpc::Interface::interfaceWithProtocol<protocols::NotifyProxy>());
    connection()->setExportedObject<protocols::NotifyProxy>(handler);
    connection()->setRemoteObjectInterface(
        xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
    handler->setXpcConnection(connection());
    connection()->setInterruptionHandler([handler] { handler->connectionInterupted(); });
    connection()->setInvalidationHandler([handler] { handler->connectionInvalidated(); });
    connection()->resume();
  }

  // Returns null once nothing owns it any more.
  std::shared_ptr<KLNNotificationHandler> handler() const { return handler_.lock(); }

 private:
  std::weak_ptr<KLNNotificationHandler> handler_;
};

}  // namespace keel::testing
