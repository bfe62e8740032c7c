// SPDX-License-Identifier: Apache-2.0
// In a forked child the library returns errors immediately and does nothing that disturbs its
// parent.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "client/auth_client.h"
#include "client/client.h"
#include "client/fake_service.h"
#include "client/module_connection.h"
#include "client/module_listener.h"
#include "client/ping_proxy.h"
#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

using testing::HasSubstr;
using Kind = ClientError::Kind;

const Value kData = Value::map({{"n", 1}});

// Returns the kind of the error, or `refused` if there is none.
template <class T>
Kind kindOf(const ClientResult<T>& result) {
  return result ? Kind::refused : result.error().kind();
}

// A process with a module's service, a notification service, and a connection to each.
class Fork : public testing::Test {
 protected:
  Fork() { EXPECT_TRUE(client->publish("weather", kData).wait()); }

  // Runs `body` in a child, which has only the forking thread.
  static void inChild(const std::function<void()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
      body();
      ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }

  TemporaryFolder folder;
  // The I/O thread may still serve a connection after the test.
  std::shared_ptr<FakeService::Shared> shared = std::make_shared<FakeService::Shared>();
  std::unique_ptr<KLNModuleListener> notifyListener =
      *KLNModuleListener::create<protocols::NotifyProxy>(
          kNotifyServiceName,
          [this](const ModulePeer&) {
            return std::shared_ptr<FakeService>(
                new FakeService(*shared, nullptr),
                [held = shared](const FakeService* service) { delete service; });
          },
          {.serviceDirectory = folder.path()});
  std::unique_ptr<KLNModuleListener> pingListener = *KLNModuleListener::create<PingProxy>(
      "ping", [](const ModulePeer&) { return std::make_shared<Ping>(); },
      {.serviceDirectory = folder.path()});
  const ClientOptions options{.serviceDirectory = folder.path()};
  std::unique_ptr<KLNClient> client = KLNClient::create(options);
  std::unique_ptr<KLNAuthClient> authClient = KLNAuthClient::create(options);
  std::unique_ptr<KLNModuleConnection<PingProxy>> connection =
      *KLNModuleConnection<PingProxy>::open("ping", folder.path());
};

TEST_F(Fork, EveryRequestOfTheChildFailsImmediately) {
  inChild([this] {
    const auto published = client->publish("a", kData).wait();
    ASSERT_EQ(kindOf(published), Kind::forked);
    EXPECT_THAT(published.error().message(),
                HasSubstr("could not publish \"a\": this process was forked"));
    EXPECT_EQ(kindOf(client->dumpAll().future().get()), Kind::forked);
    EXPECT_EQ(kindOf(client->publications().wait()), Kind::forked);
    bool called = false;
    EXPECT_EQ(
        kindOf(client->remove("weather").then([&](const ClientResult<void>&) { called = true; })),
        Kind::forked);
    EXPECT_FALSE(called);
    EXPECT_EQ(kindOf(authClient->check().wait()), Kind::forked);
    EXPECT_EQ(kindOf(connection->call<&PingProxy::ping>()), Kind::forked);
  });
}

TEST_F(Fork, ClientsCreatedByTheChildFailImmediately) {
  inChild([this] {
    EXPECT_EQ(kindOf(KLNClient::create(options)->publish("a", kData).wait()), Kind::forked);
    EXPECT_EQ(kindOf(KLNAuthClient::create(options)->check().wait()), Kind::forked);
    EXPECT_EQ(kindOf(KLNModuleConnection<PingProxy>::open("ping", folder.path())), Kind::forked);
    EXPECT_EQ(kindOf(KLNModuleListener::create<PingProxy>(
                  "other", [](const ModulePeer&) { return std::make_shared<Ping>(); },
                  {.serviceDirectory = folder.path()})),
              Kind::forked);
  });
}

TEST_F(Fork, DestructionInTheChildDoesNotAffectTheParent) {
  auto subscription = client->subscribe("weather", [](const Event&) {}).wait();
  ASSERT_TRUE(subscription);
  ASSERT_TRUE(connection->call<&PingProxy::ping>());
  auto work = pingListener->beginWork();
  inChild([&] {
    client->setStateHandler([](const ConnectionState&) {});
    client->setPublicationHandler([](const PublicationState&) {});
    subscription->cancel();
    client->close();
    client.reset();
    authClient->close();
    authClient.reset();
    connection.reset();
    work.reset();
    EXPECT_EQ(pingListener->beginWork(), nullptr);
    pingListener->runUntilIdle();
    pingListener.reset();
    notifyListener.reset();
  });
  EXPECT_TRUE(client->update("weather", kData).wait());
  EXPECT_EQ(subscription->state(), Subscription::State::active);
  EXPECT_TRUE(connection->call<&PingProxy::ping>());
  const auto another = KLNModuleConnection<PingProxy>::open("ping", folder.path());
  ASSERT_TRUE(another);
  EXPECT_TRUE((*another)->call<&PingProxy::ping>());
}

}  // namespace
}  // namespace keel
