// SPDX-License-Identifier: Apache-2.0
#include "daemon/listener_delegate.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <thread>

#include "notify/notification_handler.h"
#include "notify/notification_service.h"
#include "protocols/notify_proxy.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/foundation/temporary_folder.h"
#include "tests/support/fake_client.h"
#include "tests/support/log_recorder.h"

namespace keel {
namespace {

using protocols::NotifyProxy;
using testing::FakeClient;
using testing::LogLine;

class NotifyListener : public ::testing::Test {
 protected:
  NotifyListener() {
    listener_ = xpc::Listener::inDirectory(folder_.path(), "notify", context_).value();
  }
  ~NotifyListener() override {
    listener_->invalidate();
    while (reactor_.turn(/*wait=*/false)) {
    }
  }

  bool accept(FakeClient& client) {
    return delegate_.listenerShouldAcceptNewConnection(*listener_, client.connection());
  }
  // Ends a connection whose handlers run on the worker pool, and waits, so that their log lines
  // fall into this test.
  static void end(FakeClient& client) {
    const std::weak_ptr<xpc::Connection> connection = client.connection();
    client.die();
    while (!connection.expired()) std::this_thread::yield();
  }
  static LogLine debug(const char* text) { return {LogLevel::debug, "runtime", text}; }
  // Accepts the client with `delegate`. At the log line that begins with `received`, overwrites
  // everything the delegate has configured so far.
  void acceptSpoilt(xpc::ListenerDelegate& delegate, FakeClient& client,
                    std::string_view received) {
    const auto& connection = client.connection();
    int count = 0;
    bool wasConfidential = false;
    const LogCapture capture([&](const LogMessage& message) {
      if (!message.text.starts_with(received)) return;
      ++count;
      wasConfidential = connection->isConfidential();
      connection->setExportedInterface(
          xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
      connection->setExportedObject<protocols::SubscriberProxy>(nullptr);
      connection->setRemoteObjectInterface(xpc::Interface::interfaceWithProtocol<NotifyProxy>());
      connection->setInterruptionHandler([] {});
      connection->setInvalidationHandler([] {});
    });
    EXPECT_TRUE(delegate.listenerShouldAcceptNewConnection(*listener_, connection));
    EXPECT_EQ(count, 1);
    EXPECT_FALSE(wasConfidential);
  }

  const TemporaryFolder folder_;
  xpc::TransportContext context_{reactor_};
  Reactor reactor_;
  std::shared_ptr<xpc::Listener> listener_;
  ManualExecutor executor_;
  std::shared_ptr<KLNNotificationService> service_ =
      std::make_shared<KLNNotificationService>(executor_);
  KLNNotificationService::Override override_{service_};
  testing::LogRecorder log_{LogLevel::debug};
  NotifyListenerDelgate delegate_;
};

TEST_F(NotifyListener, AcceptsEveryConnectionAndLogsItsPidFirst) {
  FakeClient client(executor_, FakeClient::identity(345));
  EXPECT_TRUE(accept(client));
  EXPECT_EQ(log_.linesOf("runtime"),
            (std::vector{debug("New Notification Service Connection received from 345"),
                         debug("NotifyListenerDelgate: Notify service is ready")}));
  EXPECT_EQ(client.daemonSelectors().size(), 8u);
}

TEST_F(NotifyListener, ReceptionIsLoggedBeforeAnythingIsConfigured) {
  FakeClient client(executor_, FakeClient::identity(345));
  acceptSpoilt(delegate_, client, "New Notification Service Connection received from 345");
  EXPECT_EQ(client.daemonSelectors().size(), 8u);
  const auto subscription = client.request<&NotifyProxy::subscribeTo>(Name("n"), 0u);
  executor_.runAll();
  EXPECT_TRUE(client.resultsOf<&NotifyProxy::subscribeTo>(subscription));
  EXPECT_TRUE(client.connection()->indexOf<&protocols::SubscriberProxy::updateSubscriptionFor>());
  client.sendNonsense();
  client.die();
  executor_.runAll();
  const auto lines = log_.linesOf("runtime");
  for (const char* text :
       {"Dispatcher: plugin connection from 345 interrupted (unserialized object?)",
        "Dispatcher: connection from 345 is invalidated"}) {
    EXPECT_NE(std::ranges::find(lines, debug(text)), lines.end()) << text;
  }
}

TEST_F(NotifyListener, TwoConnectionsOfOneProcessGetSeparateHandlers) {
  FakeClient first(executor_, FakeClient::identity(345));
  FakeClient second(executor_, FakeClient::identity(345));
  EXPECT_TRUE(accept(first));
  EXPECT_TRUE(accept(second));
  // A shared handler would refuse the second subscription to the same name.
  const auto one = first.request<&NotifyProxy::subscribeTo>(Name("n"), 0u);
  const auto two = second.request<&NotifyProxy::subscribeTo>(Name("n"), 0u);
  executor_.runAll();
  EXPECT_FALSE(std::get<1>(first.resultsOf<&NotifyProxy::subscribeTo>(one).value()));
  EXPECT_FALSE(std::get<1>(second.resultsOf<&NotifyProxy::subscribeTo>(two).value()));
}

TEST_F(NotifyListener, InterruptionAndInvalidationCallTheHandlerAndLogThePid) {
  FakeClient client(executor_, FakeClient::identity(345, 9));
  accept(client);
  client.request<&NotifyProxy::subscribeTo>(Name("n"), 0u);
  executor_.runAll();
  log_.take();

  client.sendNonsense();
  executor_.runAll();
  const auto interrupted = log_.take();
  EXPECT_NE(std::ranges::find(
                interrupted,
                debug("Dispatcher: plugin connection from 345 interrupted (unserialized object?)")),
            interrupted.end());
  EXPECT_EQ(interrupted.back(), (LogLine{LogLevel::debug, "notification",
                                         "NotifyService connection from (345)9 interrupted"}));
  EXPECT_EQ(service_->published().at("n")->subscribers()->count(), 1u);

  client.die();
  executor_.runAll();
  const auto ended = log_.take();
  ASSERT_GE(ended.size(), 2u);
  EXPECT_EQ(ended[0], debug("Dispatcher: connection from 345 is invalidated"));
  EXPECT_EQ(ended[1], (LogLine{LogLevel::debug, "notification",
                               "NotifyService  connection from (345)9 invalidated"}));
  EXPECT_EQ(service_->published().at("n")->subscribers()->count(), 0u);
}

TEST_F(NotifyListener, OnlyTheConnectionOwnsItsHandler) {
  FakeClient client(executor_);
  accept(client);
  const std::weak_ptr<xpc::Connection> connection = client.connection();
  client.die();
  executor_.runAll();
  EXPECT_TRUE(connection.expired());
}

TEST_F(NotifyListener, AuthDelegateAcceptsEveryConnectionAndLogsItsPidFirst) {
  AuthListenerDelgate delegate;
  FakeClient client(executor_, FakeClient::identity(345));
  EXPECT_TRUE(delegate.listenerShouldAcceptNewConnection(*listener_, client.connection()));
  EXPECT_EQ(log_.linesOf("runtime"),
            (std::vector{debug("New Auth Service Connection received from 345"),
                         debug("AuthListenerDelgate: AuthService is ready")}));
  EXPECT_EQ(client.daemonSelectors().size(), 8u);
  EXPECT_TRUE(client.connection()->isConfidential());
  log_.take();
  end(client);
  EXPECT_EQ(log_.linesOf("runtime"),
            (std::vector{debug("AuthListenerDelgate: connection is invalidated"),
                         debug("AuthService connection from 7 invalidated")}));
}

TEST_F(NotifyListener, AuthDelegateLogsReceptionBeforeAnythingIsConfigured) {
  AuthListenerDelgate delegate;
  FakeClient client(executor_, FakeClient::identity(345));
  acceptSpoilt(delegate, client, "New Auth Service Connection received from 345");
  EXPECT_EQ(client.daemonSelectors().size(), 8u);
  log_.take();
  end(client);
  EXPECT_EQ(log_.linesOf("runtime"),
            (std::vector{debug("AuthListenerDelgate: connection is invalidated"),
                         debug("AuthService connection from 7 invalidated")}));
}

TEST_F(NotifyListener, AuthDelegateGivesTwoConnectionsOfOneProcessSeparateHandlers) {
  AuthListenerDelgate delegate;
  // A shared handler would only have the last one's session.
  FakeClient first(executor_, FakeClient::identity(345, 7));
  FakeClient second(executor_, FakeClient::identity(345, 8));
  for (FakeClient* client : {&first, &second})
    delegate.listenerShouldAcceptNewConnection(*listener_, client->connection());
  log_.take();
  end(first);
  EXPECT_EQ(log_.linesOf("runtime").back(), debug("AuthService connection from 7 invalidated"));
  end(second);
  EXPECT_EQ(log_.linesOf("runtime").back(), debug("AuthService connection from 8 invalidated"));
}

TEST_F(NotifyListener, AuthDelegateSetsNoRemoteInterface) {
  AuthListenerDelgate delegate;
  FakeClient client(executor_);
  delegate.listenerShouldAcceptNewConnection(*listener_, client.connection());
  // The client declares the method; the daemon does not use it.
  EXPECT_FALSE(client.connection()->indexOf<&protocols::SubscriberProxy::updateSubscriptionFor>());
  end(client);
}

TEST_F(NotifyListener, BaseClassOnlyAccepts) {
  KLNListenerDelegate base;
  FakeClient client(executor_);
  EXPECT_TRUE(base.listenerShouldAcceptNewConnection(*listener_, client.connection()));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_TRUE(client.daemonSelectors().empty());
}

}  // namespace
}  // namespace keel
