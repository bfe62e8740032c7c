// SPDX-License-Identifier: Apache-2.0
#include "client/module_listener.h"

#include <fmt/format.h>

#include <future>

#include "client/diagnosis.h"
#include "client/gate.h"
#include "client/library_thread.h"
#include "platform/product/product.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/transport/service_socket.h"
#include "runtime/xpc/listener.h"

namespace keel {

// Lives on the I/O thread.
class KLNModuleListener::Delegate final : public xpc::ListenerDelegate,
                                          public std::enable_shared_from_this<Delegate> {
 public:
  Delegate(Reactor& reactor, std::shared_ptr<xpc::Listener> listener, Configure configure,
           std::chrono::milliseconds idleTime)
      : reactor_(reactor),
        listener_(std::move(listener)),
        configure_(std::move(configure)),
        idleTime_(idleTime) {}

  // From any thread.
  void begin() {
    listener_->setDelegate(shared_from_this());
    listener_->resume();
    reactor_.post([self = shared_from_this()] { self->waitForIdleness(); });
  }
  void end() {
    if (isForkedFromLibrary()) {
      // Destroying it here would remove it from the epoll(7) instance that the parent waits on.
      leakedAfterFork_ = shared_from_this();
      return;
    }
    listener_->invalidate();
    gate_.close(reactor_.isCurrent());
  }
  std::shared_ptr<void> beginWork() {
    if (isForkedFromLibrary()) return nullptr;
    reactor_.post([self = shared_from_this()] { self->enter(); });
    return {nullptr, [self = shared_from_this()](void*) {
              if (!isForkedFromLibrary()) self->reactor_.post([self] { self->leave(); });
            }};
  }
  std::future<void> idle() { return idle_.get_future(); }

  bool listenerShouldAcceptNewConnection(
      xpc::Listener&, const std::shared_ptr<xpc::Connection>& connection) override {
    const ModulePeer peer{connection->processIdentifier(), connection->effectiveUserIdentifier(),
                          connection->auditSessionIdentifier()};
    bool accepted = false;
    gate_.pass([&] { accepted = !ended_ && configure_(*connection, peer); });
    if (!accepted) return false;
    enter();
    connection->setInvalidationHandler([self = shared_from_this()] { self->leave(); });
    connection->resume();
    return true;
  }

 private:
  // Counts a client or a piece of work; the module is idle while there are none.
  void enter() {
    ++busyCount_;
    if (timer_ != 0) reactor_.cancel(std::exchange(timer_, 0));
  }
  void leave() {
    if (--busyCount_ == 0) waitForIdleness();
  }
  void waitForIdleness() {
    if (busyCount_ != 0 || ended_) return;
    timer_ = reactor_.after(idleTime_, [self = shared_from_this()] {
      self->timer_ = 0;
      self->ended_ = true;
      self->listener_->suspend();
      self->idle_.set_value();
    });
  }

  Reactor& reactor_;
  const std::shared_ptr<xpc::Listener> listener_;
  const Configure configure_;
  Gate gate_;
  const std::chrono::milliseconds idleTime_;
  std::size_t busyCount_ = 0;
  bool ended_ = false;
  Reactor::TimerId timer_ = 0;
  std::promise<void> idle_;
  std::shared_ptr<Delegate> leakedAfterFork_;
};

ClientResult<std::unique_ptr<KLNModuleListener>> KLNModuleListener::createWith(
    const std::string& serviceName, Configure configure, Options options) {
  if (isForkedFromLibrary()) return std::unexpected(diagnosis::ofFork("serve " + serviceName));
  const std::string directory =
      options.serviceDirectory.empty() ? kServiceDirectory : options.serviceDirectory;
  Reactor& reactor = libraryReactor();
  auto listener = xpc::Listener::inDirectory(directory, serviceName, libraryTransport());
  if (!listener) {
    return std::unexpected(
        ClientError(ClientError::Kind::requestFailed,
                    fmt::format("cannot serve {}: {}", serviceName, listener.error().description()),
                    listener.error()));
  }
  auto delegate = std::make_shared<Delegate>(reactor, std::move(*listener), std::move(configure),
                                             options.idleTime);
  return std::unique_ptr<KLNModuleListener>(new KLNModuleListener(std::move(delegate)));
}

KLNModuleListener::KLNModuleListener(std::shared_ptr<Delegate> delegate)
    : delegate_(std::move(delegate)) {
  delegate_->begin();
}

KLNModuleListener::~KLNModuleListener() {
  delegate_->end();
}

std::shared_ptr<void> KLNModuleListener::beginWork() {
  return delegate_->beginWork();
}

void KLNModuleListener::runUntilIdle() {
  if (isForkedFromLibrary()) return;
  delegate_->idle().wait();
}

}  // namespace keel
