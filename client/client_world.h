// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "client/client.h"
#include "client/client_core.h"
#include "client/fake_service.h"
#include "tests/support/loop_transport.h"

namespace keel {

// A fixture: one client and the services that it connects to, on a reactor with a clock, both
// driven by hand.
class ClientWorld : public ::testing::Test {
 protected:
  ClientWorld() { reactor.turn(/*wait=*/false); }
  ~ClientWorld() override {
    client.reset();
    for (const auto& service : services) service->end({});
    settle();
  }

  void makeClient(ClientOptions options = {}) {
    auto connector = [this]() -> std::expected<std::shared_ptr<xpc::Connection>, Error> {
      ++attempts;
      if (connectErrno != 0) return std::unexpected(Error(NSPOSIXErrorDomain, connectErrno));
      auto [here, there] = testing::LoopTransport::pair(reactor);
      services.push_back(
          std::make_shared<FakeService>(shared, xpc::Connection::create({}, std::move(there), {})));
      FakeService::serve(services.back());
      return xpc::Connection::create({}, std::move(here), {});
    };
    client = std::make_unique<KLNClient>(std::make_shared<ClientCore>(
        reactor, connector, "/run/keeld/test", std::move(options), [] { return 0.0; }));
  }
  void makeConnectedClient(ClientOptions options = {}) {
    makeClient(std::move(options));
    settle();
  }

  // Turns the reactor until it is idle.
  void settle() {
    for (int idle = 0, turns = 0; idle < 3; ++turns) {
      ASSERT_LT(turns, 10'000);
      idle = reactor.turn(/*wait=*/false) ? 0 : idle + 1;
    }
  }
  void pass(std::chrono::milliseconds time) {
    now += time;
    settle();
  }

  // Begins the request and returns its result, which must arrive without the clock moving.
  template <class T>
  ClientResult<T> resultOf(Request<T> request) {
    auto future = std::move(request).future();
    settle();
    if (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      return std::unexpected(
          ClientError(ClientError::Kind::timedOut, "still waiting when nothing was left to do"));
    }
    return future.get();
  }
  template <class T>
  static ClientError::Kind kindOf(const ClientResult<T>& result) {
    return result ? ClientError::Kind::wouldDeadlock : result.error().kind();
  }
  FakeService& service() { return *services.back(); }

  Reactor::Clock::time_point now{};
  Reactor reactor{[this] { return now; }};
  FakeService::Shared shared;
  std::vector<std::shared_ptr<FakeService>> services;
  int connectErrno = 0;
  int attempts = 0;
  std::unique_ptr<KLNClient> client;
};

template <class T>
bool isReady(const std::future<T>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace keel
