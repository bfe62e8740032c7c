// SPDX-License-Identifier: Apache-2.0
// The client over a socket, with a library thread, used from other threads; most valuable under the
// thread sanitizer.
#include <sys/socket.h>

#include <atomic>
#include <latch>
#include <semaphore>
#include <thread>

#include "client/client_world.h"
#include "runtime/xpc/client_endpoint.h"

namespace keel {
namespace {

using Kind = ClientError::Kind;

const Value kData = Value::map({{"n", 1}});

class ClientThread : public ::testing::Test {
 protected:
  ClientThread() {
    auto connector = [this]() -> std::expected<std::shared_ptr<xpc::Connection>, Error> {
      int ends[2];
      KEEL_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
      service = std::make_shared<FakeService>(
          shared, xpc::clientConnection(FileDescriptor(ends[0]), context));
      FakeService::serve(service);
      return xpc::clientConnection(FileDescriptor(ends[1]), context);
    };
    client = std::make_unique<KLNClient>(std::make_shared<ClientCore>(
        reactor, connector, "/run/keeld/test", ClientOptions{}, [] { return 0.0; }));
    thread = std::thread([this] { reactor.run(); });
  }
  ~ClientThread() override {
    client.reset();
    onLibraryThread([this] {
      if (service) service->end({});
    });
    onLibraryThread([] {});
    reactor.stop();
    thread.join();
  }
  // Runs `block` on the library's thread and waits for it.
  void onLibraryThread(std::function<void()> block) {
    std::latch done(1);
    reactor.post([&] {
      block();
      done.count_down();
    });
    done.wait();
  }

  xpc::TransportContext context{reactor};
  Reactor reactor;
  FakeService::Shared shared;
  std::shared_ptr<FakeService> service;
  std::unique_ptr<KLNClient> client;
  std::thread thread;
};

TEST_F(ClientThread, BlockedCallersReceiveTheirAnswers) {
  std::atomic<int> succeeded{0};
  std::vector<std::jthread> callers;
  for (int caller = 0; caller < 4; ++caller) {
    callers.emplace_back([&, caller] {
      for (int i = 0; i < 50; ++i) {
        const std::string name = std::to_string(caller) + "." + std::to_string(i);
        if (client->publish(name, kData).wait()) ++succeeded;
      }
    });
  }
  callers.clear();
  EXPECT_EQ(succeeded, 200);
  EXPECT_EQ(client->publications().wait()->size(), 200U);
}

TEST_F(ClientThread, AWaiterTimesOutWhileACallbackBlocksTheLibrary) {
  std::promise<void> held, release;
  client->publish("a", kData).then([&](ClientResult<void>) {
    held.set_value();
    release.get_future().wait();
  });
  held.get_future().wait();
  EXPECT_EQ(client->publish("b", kData).within(std::chrono::milliseconds(1)).wait().error().kind(),
            Kind::timedOut);
  release.set_value();
  onLibraryThread([] {});
}

TEST_F(ClientThread, WaitingInACallbackIsRefused) {
  std::promise<Kind> kind;
  client->publish("a", kData).then([&](ClientResult<void>) {
    kind.set_value(client->dumpAll().wait().error().kind());
  });
  EXPECT_EQ(kind.get_future().get(), Kind::wouldDeadlock);
}

TEST_F(ClientThread, NoCallbackRunsOnceTheDestructorHasReturned) {
  std::atomic<bool> destroyed{false};
  std::atomic<int> late{0};
  std::counting_semaphore<> running(0);
  auto subscription = client
                          ->subscribe("a",
                                      [&](const Event&) {
                                        running.release();
                                        std::this_thread::yield();
                                        if (destroyed) ++late;
                                      })
                          .wait();
  ASSERT_TRUE(subscription.has_value());
  onLibraryThread([&] {
    for (int i = 0; i < 1000; ++i) service->send("a", kData);
  });
  running.acquire();
  client.reset();
  destroyed = true;
  onLibraryThread([] {});
  EXPECT_EQ(late, 0);
}

TEST_F(ClientThread, NoEventArrivesOnceTheSubscriptionIsDestroyed) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> destroyed{false};
    std::atomic<int> late{0};
    std::counting_semaphore<> running(0);
    auto subscription = client
                            ->subscribe("a",
                                        [&](const Event&) {
                                          running.release();
                                          std::this_thread::yield();
                                          if (destroyed) ++late;
                                        })
                            .wait();
    ASSERT_TRUE(subscription.has_value());
    onLibraryThread([&] {
      for (int i = 0; i < 100; ++i) service->send("a", kData);
    });
    running.acquire();
    subscription->cancel();
    destroyed = true;
    onLibraryThread([] {});
    EXPECT_EQ(late, 0);
  }
}

TEST_F(ClientThread, ABlockedCallerIsReleasedWhenTheClientCloses) {
  onLibraryThread([this] { shared.answers = false; });
  std::jthread closer([this] { client->close(); });
  EXPECT_EQ(client->publish("a", kData).wait().error().kind(), Kind::closed);
}

}  // namespace
}  // namespace keel
