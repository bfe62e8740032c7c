// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/xpc/listener.h"

namespace keel {

// Accepts every connection. Stateless; called on the I/O thread.
class KLNListenerDelegate : public xpc::ListenerDelegate {
 public:
  bool listenerShouldAcceptNewConnection(
      xpc::Listener& listener, const std::shared_ptr<xpc::Connection>& connection) override;
};

// Gives each connection to the notify service its own handler, which the connection owns.
class NotifyListenerDelgate final : public KLNListenerDelegate {
 public:
  bool listenerShouldAcceptNewConnection(
      xpc::Listener& listener, const std::shared_ptr<xpc::Connection>& connection) override;
};

// Gives each connection to the auth service its own handler, and its own queue on the worker pool:
// a check that takes seconds delays only that connection. Checks wait in their user's lane, so that
// no user delays the others.
class AuthListenerDelgate final : public KLNListenerDelegate {
 public:
  bool listenerShouldAcceptNewConnection(
      xpc::Listener& listener, const std::shared_ptr<xpc::Connection>& connection) override;
};

}  // namespace keel
