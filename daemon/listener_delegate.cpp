// SPDX-License-Identifier: Apache-2.0
#include "daemon/listener_delegate.h"

#include "auth/auth_handler.h"
#include "notify/notification_handler.h"
#include "protocols/auth_proxy.h"
#include "protocols/notify_proxy.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/dispatch/system.h"
#include "runtime/dispatch/worker_pool.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& logger() {
  static Logger& runtime = _loggerForCategory("runtime");
  return runtime;
}

}  // namespace

bool KLNListenerDelegate::listenerShouldAcceptNewConnection(
    xpc::Listener&, const std::shared_ptr<xpc::Connection>&) {
  return true;
}

bool NotifyListenerDelgate::listenerShouldAcceptNewConnection(
    xpc::Listener& listener, const std::shared_ptr<xpc::Connection>& connection) {
  const bool accepted =
      KLNListenerDelegate::listenerShouldAcceptNewConnection(listener, connection);
  const pid_t pid = connection->processIdentifier();
  logger().debug("New Notification Service Connection received from {}", pid);
  if (accepted) {
    connection->setExportedInterface(
        xpc::Interface::interfaceWithProtocol<protocols::NotifyProxy>());
    const auto handler = std::make_shared<KLNNotificationHandler>();
    connection->setExportedObject<protocols::NotifyProxy>(handler);
    connection->setRemoteObjectInterface(
        xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
    handler->setXpcConnection(connection);
    connection->setInterruptionHandler([handler, pid] {
      logger().debug("Dispatcher: plugin connection from {} interrupted (unserialized object?)",
                     pid);
      handler->connectionInterupted();
    });
    connection->setInvalidationHandler([handler, pid] {
      logger().debug("Dispatcher: connection from {} is invalidated", pid);
      handler->connectionInvalidated();
    });
    connection->resume();
    logger().debug("NotifyListenerDelgate: Notify service is ready");
  }
  return accepted;
}

bool AuthListenerDelgate::listenerShouldAcceptNewConnection(
    xpc::Listener& listener, const std::shared_ptr<xpc::Connection>& connection) {
  const bool accepted =
      KLNListenerDelegate::listenerShouldAcceptNewConnection(listener, connection);
  logger().debug("New Auth Service Connection received from {}", connection->processIdentifier());
  if (accepted) {
    connection->setExportedInterface(xpc::Interface::interfaceWithProtocol<protocols::AuthProxy>());
    const auto handler = std::make_shared<KLNAuthHandler>();
    connection->setExportedObject<protocols::AuthProxy>(handler);
    handler->setXpcConnection(connection);
    connection->setInterruptionHandler([handler] {
      logger().debug("AuthListenerDelgate: plugin disconnected");
      handler->connectionInterupted();
    });
    connection->setInvalidationHandler([handler] {
      logger().debug("AuthListenerDelgate: connection is invalidated");
      handler->connectionInvalidated();
    });
    connection->setConfidential();
    const uid_t user = connection->effectiveUserIdentifier();
    connection->setQueue(SerialQueue::create("auth connection", globalQueue().laneOf(user)),
                         checkQueue().laneOf(user));
    connection->resume();
    logger().debug("AuthListenerDelgate: AuthService is ready");
  }
  return accepted;
}

}  // namespace keel
