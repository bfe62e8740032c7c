// SPDX-License-Identifier: Apache-2.0
#include "client/module_listener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "client/module_connection.h"
#include "runtime/foundation/temporary_folder.h"

namespace keel {

class EchoProxy {
 public:
  virtual ~EchoProxy() = default;
  virtual void echo(String text, xpc::Reply<String, std::int64_t> withHandler) = 0;
  virtual void drop(xpc::Reply<String> withHandler) = 0;
};
using EchoProxyMethods = xpc::MethodTable<xpc::Method<"echo:withHandler:", &EchoProxy::echo>,
                                          xpc::Method<"dropWithHandler:", &EchoProxy::drop>>;
EchoProxyMethods methodTableOf(const EchoProxy*);

namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

// Answers with the number of its calls.
class Echo final : public EchoProxy {
 public:
  void echo(String text, xpc::Reply<String, std::int64_t> withHandler) override {
    withHandler(std::move(text), ++count_);
  }
  void drop(xpc::Reply<String>) override {}

 private:
  std::int64_t count_ = 0;
};

class ModuleListener : public testing::Test {
 protected:
  using Connection = KLNModuleConnection<EchoProxy>;

  std::unique_ptr<KLNModuleListener> serve(std::chrono::milliseconds idleTime = 1h) {
    auto made = KLNModuleListener::create<EchoProxy>(
        "echo",
        [this](const ModulePeer& peer) {
          peers_.push_back(peer);
          return refuse_ ? nullptr : std::make_shared<Echo>();
        },
        {.serviceDirectory = folder_.path(), .idleTime = idleTime});
    EXPECT_TRUE(made) << made.error().message();
    return std::move(*made);
  }
  std::unique_ptr<Connection> connect() {
    auto made = Connection::open("echo", folder_.path());
    EXPECT_TRUE(made) << made.error().message();
    return std::move(*made);
  }
  static std::int64_t countOf(Connection& connection) {
    const auto answer = connection.call<&EchoProxy::echo>(String("x"));
    EXPECT_TRUE(answer) << answer.error().message();
    return answer ? std::get<1>(*answer) : -1;
  }

  TemporaryFolder folder_;
  bool refuse_ = false;
  std::vector<ModulePeer> peers_;  // written on the library's thread, read after an answer
};

TEST_F(ModuleListener, EveryClientReceivesItsOwnObject) {
  const auto listener = serve();
  const auto first = connect(), second = connect();
  EXPECT_EQ(countOf(*first), 1);
  EXPECT_EQ(countOf(*first), 2);
  EXPECT_EQ(countOf(*second), 1);
  ASSERT_EQ(peers_.size(), 2u);
  EXPECT_EQ(peers_[0].processIdentifier, ::getpid());
  EXPECT_EQ(peers_[0].effectiveUserIdentifier, ::geteuid());
}

TEST_F(ModuleListener, ANullObjectRefusesTheClient) {
  refuse_ = true;
  const auto listener = serve();
  const auto answer = connect()->call<&EchoProxy::echo>(String("x"));
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().kind(), ClientError::Kind::disconnected);
}

TEST_F(ModuleListener, ADroppedAnswerIsAFailure) {
  const auto listener = serve();
  const auto answer = connect()->call<&EchoProxy::drop>();
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().kind(), ClientError::Kind::requestFailed);
}

TEST_F(ModuleListener, RunUntilIdleReturnsWithoutClients) {
  serve(0ms)->runUntilIdle();
}

TEST_F(ModuleListener, RunUntilIdleReturnsOnceWorkIsDone) {
  const auto listener = serve(1ms);
  auto work = listener->beginWork();
  std::jthread ending([&] { listener->runUntilIdle(); });
  work.reset();
}

TEST_F(ModuleListener, AnUnservedServiceIsReported) {
  const auto made = Connection::open("echo", folder_.path());
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().kind(), ClientError::Kind::notRunning);
  EXPECT_THAT(made.error().message(), HasSubstr("no module serves echo"));
}

TEST_F(ModuleListener, AnUnavailableSocketIsReported) {
  const auto listener = serve();
  const auto second = KLNModuleListener::create<EchoProxy>(
      "echo", [](const ModulePeer&) { return std::make_shared<Echo>(); },
      {.serviceDirectory = folder_.path()});
  ASSERT_FALSE(second);
  EXPECT_THAT(second.error().message(), HasSubstr("cannot serve echo: "));
}

}  // namespace
}  // namespace keel
