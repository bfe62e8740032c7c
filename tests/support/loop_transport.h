// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "runtime/dispatch/reactor.h"
#include "runtime/transport/transport_context.h"
#include "tests/support/memory_transport.h"

namespace keel::testing {

// One end of an in-process connection for tests: frames and the end of the connection arrive in
// order, delivered by reactor posts alone.
class LoopTransport final : public MemoryTransport {
 public:
  static std::pair<std::unique_ptr<LoopTransport>, std::unique_ptr<LoopTransport>> pair(
      Reactor& reactor) {
    auto left = std::make_shared<End>(reactor);
    auto right = std::make_shared<End>(reactor);
    return {std::unique_ptr<LoopTransport>(new LoopTransport(reactor, left, right)),
            std::unique_ptr<LoopTransport>(new LoopTransport(reactor, right, left))};
  }
  ~LoopTransport() override { close({}); }

  xpc::TransportContext& context() override { return own_->context; }
  void start(Receiver& receiver) override {
    own_->receiver = &receiver;
    reactor_.post([own = own_] { own->deliver(); });
  }
  void send(const xpc::OutgoingMessage& message, EndOfTurnHook::Urgency) override {
    if (own_->open) carryAll(message);
  }
  void close(std::string_view goodbye) override {
    if (!std::exchange(own_->open, false)) return;
    if (!goodbye.empty()) {
      xpc::OutgoingMessage message;
      xpc::writeGoodbye(message, goodbye);
      carryAll(message);
    }
    put([peer = peer_.get()](Receiver& receiver) {
      peer->open = false;
      receiver.onClosed({});
    });
  }
  void perform(Block block) override {
    if (reactor_.isCurrent()) return block();
    reactor_.post(std::move(block));
  }
  bool onIoThread() const override { return reactor_.isCurrent(); }
  void performLater(Block block) override { reactor_.post(std::move(block)); }

 private:
  using Arrival = std::function<void(Receiver&)>;

  struct End {
    explicit End(Reactor& reactor) : context(reactor) {}

    xpc::TransportContext context;
    Receiver* receiver = nullptr;  // from start() on
    bool open = true;
    std::vector<Arrival> arrivals;

    void deliver() {
      if (receiver == nullptr || !open) return;
      const auto alive = receiver->holdAlive();
      for (const Arrival& arrival : std::exchange(arrivals, {})) {
        if (open) arrival(*receiver);
      }
    }
  };

  LoopTransport(Reactor& reactor, std::shared_ptr<End> own, std::shared_ptr<End> peer)
      : reactor_(reactor), own_(std::move(own)), peer_(std::move(peer)) {}

  void carry(std::span<const std::byte> frame) override {
    put([bytes = std::vector(frame.begin(), frame.end())](Receiver& receiver) {
      arrive(receiver, bytes);
    });
  }
  void put(Arrival arrival) {
    peer_->arrivals.push_back(std::move(arrival));
    reactor_.post([peer = peer_] { peer->deliver(); });
  }

  Reactor& reactor_;
  const std::shared_ptr<End> own_;
  const std::shared_ptr<End> peer_;
};

}  // namespace keel::testing
