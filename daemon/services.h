// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "daemon/listener_delegate.h"
#include "platform/product/product.h"
#include "runtime/logging/logger.h"

namespace keel {

// The daemon's two services and their order of opening and closing: auth before notify. `Listener`
// is xpc::Listener, or a recording fake in tests. Used by one thread at a time.
template <class Listener>
class Services {
 public:
  // Creates the listeners with `make(serviceName)` and resumes each before creating the next.
  // `make` never returns null.
  template <class Make>
  void open(Make make) {
    Logger& log = _loggerForCategory("runtime");
    auth_ = make(kAuthServiceName);
    log.debug("Auth listener created");
    auth_->setDelegate(authDelegate_);
    auth_->resume();

    notify_ = make(kNotifyServiceName);
    log.debug("Notify listener created");
    notify_->setDelegate(notifyDelegate_);
    notify_->resume();
  }

  // Called after open(). Both stop accepting before the first is invalidated.
  void close() {
    auth_->suspend();
    notify_->suspend();
    auth_->invalidate();
    notify_->invalidate();
    auth_.reset();
    notify_.reset();
  }

 private:
  // Borrowed by the listeners, which are destroyed first.
  const std::shared_ptr<AuthListenerDelgate> authDelegate_ =
      std::make_shared<AuthListenerDelgate>();
  const std::shared_ptr<NotifyListenerDelgate> notifyDelegate_ =
      std::make_shared<NotifyListenerDelgate>();
  std::shared_ptr<Listener> auth_;
  std::shared_ptr<Listener> notify_;
};

}  // namespace keel
