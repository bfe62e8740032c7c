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

// Gives each connection to the notify service a handler of its own, which lives as long as the
// connection holds it.
class NotifyListenerDelgate final : public KLNListenerDelegate {
 public:
  bool listenerShouldAcceptNewConnection(
      xpc::Listener& listener, const std::shared_ptr<xpc::Connection>& connection) override;
};

// Gives each connection to the auth service a handler of its own, and a queue of its own on the
// worker pool: a check that takes seconds holds up that connection alone. Checks wait in the lane
// of the user who asks, so that no user keeps the others waiting.
class AuthListenerDelgate final : public KLNListenerDelegate {
 public:
  bool listenerShouldAcceptNewConnection(
      xpc::Listener& listener, const std::shared_ptr<xpc::Connection>& connection) override;
};

}  // namespace keel
