// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "runtime/xpc/connection_fixture.h"

namespace keel::xpc {
namespace {

TEST_F(RawPeer, RequestIsAnsweredWithItsId) {
  start();
  sendMessage(Value::list({1, 17, 0, Value::list({Value::map({{"a", 1}})})}));
  EXPECT_EQ(received(),
            std::vector{Value::list({3, 17, Value::list({Value::map({{"a", 1}}), nullptr})})});
}

TEST_F(RawPeer, OneWayMessageIsNotAnswered) {
  start();
  sendMessage(Value::list({2, 1, Value::list({"hello"})}));
  EXPECT_TRUE(received().empty());
  EXPECT_EQ(service->told, std::vector<std::string>{"hello"});
}

TEST_F(RawPeer, FramesSplitAtAnyOffsetAreServed) {
  start();
  Bytes bytes = framed(encoded(Value::list({1, 1, 0, Value::list({nullptr})})));
  const Bytes second = framed(encoded(Value::list({2, 1, Value::list({"x"})})));
  bytes.insert(bytes.end(), second.begin(), second.end());
  for (const std::byte byte : bytes) sendBytes({byte});
  EXPECT_EQ(received().size(), 1u);
  EXPECT_EQ(service->told.size(), 1u);
}

TEST_F(RawPeer, ADroppedReplyBlockAnswersAFailure) {
  start();
  sendMessage(Value::list({1, 1, 2, Value::list({})}));
  EXPECT_TRUE(received().empty());
  service->kept.clear();
  EXPECT_EQ(received(),
            std::vector{failure(1, FailureCode::unanswered, "the request was dropped unanswered")});
  EXPECT_EQ(interruptions, 0);
}

TEST_F(RawPeer, EveryRequestOfABatchIsAnswered) {
  start();
  for (int id = 1; id <= 150; ++id) sendMessage(Value::list({1, id, 2, Value::list({})}));
  ASSERT_EQ(service->kept.size(), 150u);
  Reply<Error>::answerAll(std::span(service->kept).first(149), Error());
  Reply<Error>::answerAll(std::span(service->kept).last(1), Error());
  const std::vector<Value> answers = received();
  ASSERT_EQ(answers.size(), 150u);
  for (int id = 1; id <= 150; ++id) {
    EXPECT_EQ(answers[static_cast<std::size_t>(id - 1)],
              Value::list({3, id, Value::list({nullptr})}));
  }
  // All of them count as answered.
  service->kept.clear();
  EXPECT_TRUE(received().empty());
}

TEST_F(RawPeer, LargeAnswersToManyRequestsAreSentOneByOne) {
  start();
  for (int id = 1; id <= 3; ++id) sendMessage(Value::list({1, id, 2, Value::list({})}));
  const Error error(
      "domain", 1, Dictionary(Value::map({{"text", std::string(limits::kSharedPieceBytes, 'x')}})));
  Reply<Error>::answerAll(service->kept, error);
  const std::vector<Value> answers = received();
  ASSERT_EQ(answers.size(), 3u);
  for (int id = 1; id <= 3; ++id) {
    EXPECT_EQ(answers[static_cast<std::size_t>(id - 1)],
              Value::list({3, id, Value::list({error})}));
  }
}

TEST_F(RawPeer, ABatchAnswersEachConnection) {
  start();
  std::vector<std::string> local;
  const auto localReply = [&local](std::string name) {
    return Reply<Error>::to([&local, name](const Error& error) {
      local.push_back(name + std::to_string(error.code()));
    });
  };
  for (int id = 1; id <= 2; ++id) sendMessage(Value::list({1, id, 2, Value::list({})}));
  std::vector<Reply<Error>> replies;
  replies.push_back(localReply("a"));
  replies.push_back(std::move(service->kept[0]));
  replies.push_back(localReply("b"));
  replies.push_back(std::move(service->kept[1]));
  service->kept.clear();
  const Error error("domain", 7);
  Reply<Error>::answerAll(replies, error);
  EXPECT_EQ(local, (std::vector<std::string>{"a7", "b7"}));
  EXPECT_EQ(received(), (std::vector{Value::list({3, 1, Value::list({error})}),
                                     Value::list({3, 2, Value::list({error})})}));
}

TEST_F(RawPeer, AMethodMayEndTheConnectionThatHoldsItsObject) {
  struct EndingService final : Echo {
    void echo(Dictionary, Reply<Dictionary, Error>) override {}
    void tell(String) override {
      connection->invalidate();
      livedOn = !self.expired();
    }
    void keep(Reply<Error>) override {}
    void survey(Reply<Error>) override {}
    void ponder(String, Reply<Error>) override {}
    void settle(Reply<Error>) override {}
    std::shared_ptr<Connection> connection;
    std::weak_ptr<EndingService> self;
    bool livedOn = false;
  };
  auto ending = std::make_shared<EndingService>();
  const std::weak_ptr<EndingService> weak = ending;
  ending->connection = connection;
  ending->self = ending;
  connection->setExportedObject<Echo>(ending);
  start();
  bool livedOn = false;
  connection->setInvalidationHandler([&] { livedOn = weak.lock()->livedOn; });
  ending.reset();
  sendMessage(Value::list({2, 1, Value::list({"end"})}));
  turns();
  EXPECT_TRUE(livedOn);
  EXPECT_TRUE(weak.expired());
}

TEST_F(RawPeer, AGoodbyeEndsTheConnectionAndIsKept) {
  start();
  sendMessage(Value::list({5, "that is all"}));
  EXPECT_TRUE(peerSeesTheEnd());
  EXPECT_EQ(connection->goodbye(), "that is all");
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, EndOfFileRunsTheInvalidationHandlerOnceAndReleasesEverything) {
  start();
  std::weak_ptr<EchoService> object = service;
  service = std::make_shared<EchoService>();
  peer.reset();
  turns();
  EXPECT_EQ(invalidations, 1);
  EXPECT_TRUE(object.expired());
  connection->invalidate();
  turns();
  EXPECT_EQ(invalidations, 1);
  std::weak_ptr<Connection> weak = connection;
  EXPECT_EQ(weak.use_count(), 1);
}

TEST_F(RawPeer, ReplyAfterTheEndIsHarmless) {
  start();
  sendMessage(Value::list({1, 1, 2, Value::list({})}));
  ASSERT_EQ(service->kept.size(), 1u);
  peer.reset();
  turns();
  service->kept[0](nullptr);
}

TEST_F(RawPeer, ACallUsesThePeersIndexOfTheMethod) {
  start(Value::list({"other:", "tell:"}));
  int errors = 0;
  connection->remoteObjectProxyWithErrorHandler<Echo>([&](Error) { ++errors; })
      .call<&Echo::tell>(String("hi"));
  EXPECT_EQ(received(), std::vector{Value::list({2, 1, Value::list({"hi"})})});
  EXPECT_EQ(errors, 0);
}

TEST_F(RawPeer, ACallThatThePeerLacksIsReportedLater) {
  start(Value::list({"tell:"}));
  std::vector<Error> errors;
  connection->remoteObjectProxyWithErrorHandler<Echo>([&](Error error) { errors.push_back(error); })
      .call<&Echo::keep>([](Error) { FAIL(); });
  EXPECT_TRUE(errors.empty());
  turns();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].code(), static_cast<int>(ConnectionErrorCode::notImplemented));
}

TEST_F(RawPeer, CallOnAnEndedConnectionIsReportedLater) {
  start(Value::list({"tell:"}));
  connection->invalidate();
  std::vector<Error> errors;
  connection->remoteObjectProxyWithErrorHandler<Echo>([&](Error error) { errors.push_back(error); })
      .call<&Echo::tell>(String("x"));
  turns();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].code(), static_cast<int>(ConnectionErrorCode::invalid));
}

TEST_F(RawPeer, AlternatingCallsReceiveTheirOwnReplies) {
  start(Value::list({"tell:"}));
  for (const char* text : {"a", "a", "b", "a"}) {
    connection->remoteObjectProxyWithErrorHandler<Echo>([](Error) {})
        .call<&Echo::tell>(String(text));
  }
  std::vector<Value> expected;
  for (const char* text : {"a", "a", "b", "a"})
    expected.push_back(Value::list({2, 0, Value::list({text})}));
  EXPECT_EQ(received(), expected);
}

TEST_F(RawPeer, TheDescriptionIsStable) {
  EXPECT_TRUE(connection->description().ends_with("pid 345 (mailmod) uid 501 session 3>"))
      << connection->description();
  const std::string before = connection->description();
  connection->resume();
  peer.reset();
  turns();
  EXPECT_EQ(connection->description(), before);
}

TEST_F(RawPeer, ItsQueueRunsMessagesAndHandlers) {
  connection->setQueue(SerialQueue::create("test", executor), executor);
  connection->resume();
  sendMessage(hello());
  sendMessage(Value::list({2, 1, Value::list({"one"})}));
  sendMessage(Value::list({9}));
  turns();
  EXPECT_TRUE(service->told.empty());
  executor.runAll();
  EXPECT_EQ(service->told.size(), 1u);
  EXPECT_EQ(interruptions, 1);
  peer.reset();
  turns();
  EXPECT_EQ(invalidations, 0);
  executor.runAll();
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, SlowRequestsRunOnTheOtherExecutorInOrder) {
  ManualExecutor elsewhere;
  connection->setQueue(SerialQueue::create("test", executor), elsewhere);
  connection->resume();
  sendMessage(hello());
  sendMessage(Value::list({2, 1, Value::list({"before"})}));
  sendMessage(Value::list({1, 1, 4,
                           Value::list({
                               "slow",
                           })}));
  sendMessage(Value::list({2, 1, Value::list({"behind"})}));
  turns();
  executor.runAll();
  EXPECT_EQ(service->told, (std::vector<std::string>{"before"}));
  // The invalidation waits for the request in flight, too.
  peer.reset();
  turns();
  executor.runAll();
  EXPECT_EQ(invalidations, 0);
  elsewhere.runAll();
  executor.runAll();
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, SlowRequestsAreServedOnceTheOtherExecutorRuns) {
  ManualExecutor elsewhere;
  connection->setQueue(SerialQueue::create("test", executor), elsewhere);
  connection->resume();
  sendMessage(hello());
  sendMessage(Value::list({1, 1, 4, Value::list({"slow"})}));
  sendMessage(Value::list({2, 1, Value::list({"behind"})}));
  turns();
  executor.runAll();
  EXPECT_TRUE(service->told.empty());
  elsewhere.runAll();
  EXPECT_EQ(service->told, (std::vector<std::string>{"slow"}));
  executor.runAll();
  EXPECT_EQ(service->told, (std::vector<std::string>{"slow", "behind"}));
  EXPECT_EQ(received().back(), Value::list({3, 1, Value::list({nullptr})}));
}

TEST_F(RawPeer, UnexpectedAnswersOnAQueueAreIgnored) {
  connection->setQueue(SerialQueue::create("test", executor), executor);
  connection->resume();
  sendMessage(hello());
  sendMessage(Value::list({3, 1, Value::list({})}));
  turns();
  executor.runAll();
  EXPECT_EQ(interruptions, 1);
}

struct PeerWithQuota : RawPeer {
  PeerWithQuota() : RawPeer(Connection::Options{.quota = &quotaOfTest()}) {}
  ~PeerWithQuota() override { accountOfTest().refund(accountOfTest().bytes()); }
  static MemoryAccount& accountOfTest() {
    static MemoryAccount account;
    return account;
  }
  static const MemoryQuota& quotaOfTest() {
    static const MemoryQuota quota{.account = &accountOfTest(), .limitBytes = 100'000};
    return quota;
  }
};

TEST_F(PeerWithQuota, LastingRequestsOverQuotaAreRefused) {
  start();
  accountOfTest().charge(100'000);
  sendMessage(Value::list({1, 1, 5, Value::list({})}));
  EXPECT_EQ(received(), std::vector{Value::list({3, 1, Value::list({nullptr})})});
  accountOfTest().charge(1);
  sendMessage(Value::list({1, 2, 5, Value::list({})}));
  EXPECT_EQ(received(),
            std::vector{failure(2, FailureCode::overQuota,
                                "uid 501 holds 100001 bytes here; at most 100000 are granted")});
}

TEST_F(PeerWithQuota, PendingMessagesAreCharged) {
  connection->setQueue(SerialQueue::create("test", executor), executor);
  connection->resume();
  sendMessage(hello());
  const std::size_t before = accountOfTest().bytes();
  sendMessage(Value::list({2, 1, Value::list({std::string(1000, 'x')})}));
  turns();
  EXPECT_GE(accountOfTest().bytes(), before + 1000 + limits::kQueuedMessageBytes);
  executor.runAll();
  turns();
  EXPECT_EQ(accountOfTest().bytes(), before);
  EXPECT_EQ(service->told.size(), 1u);
}

TEST_F(PeerWithQuota, APendingMessageOverQuotaEndsTheConnection) {
  connection->setQueue(SerialQueue::create("test", executor), executor);
  connection->resume();
  sendMessage(hello());
  accountOfTest().charge(150'001);
  sendMessage(Value::list({2, 1, Value::list({"one"})}));
  EXPECT_EQ(received().back(),
            Value::list({5, "its user holds too much here for a message to wait"}));
  executor.runAll();
  EXPECT_TRUE(service->told.empty());
}

// Frames split at any offset are assembled in memory that is wiped.
TEST_F(RawPeer, ConfidentialConnectionsWorkLikeOthers) {
  connection->setConfidential();
  start();
  const Bytes whole = framed(encoded(Value::list({2, 1, Value::list({std::string(70'000, 'x')})})));
  for (const std::size_t cut :
       {std::size_t{2}, std::size_t{10}, std::size_t{65'000}, whole.size() - 1}) {
    sendBytes(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)));
    turns();
    sendBytes(Bytes(whole.begin() + static_cast<std::ptrdiff_t>(cut), whole.end()));
  }
  turns();
  EXPECT_EQ(service->told, std::vector<std::string>(4, std::string(70'000, 'x')));
}

TEST_F(RawPeer, ReplyFromAnotherThreadArrives) {
  start();
  sendMessage(Value::list({1, 1, 2, Value::list({})}));
  ASSERT_EQ(service->kept.size(), 1u);
  std::thread([&] { service->kept[0](nullptr); }).join();
  EXPECT_EQ(received(), std::vector{Value::list({3, 1, Value::list({nullptr})})});
}

// Both ends of a connection.
struct BothEnds : testing::Test {
  BothEnds() {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    server = Connection::create(
        PeerIdentity(),
        std::make_unique<FrameStream>(FileDescriptor(both[0]), context,
                                      FrameStream::Terms{.frameLimitBytes = limits::kFrameBytes}),
        Connection::Options());
    server->setExportedInterface(Interface::interfaceWithProtocol<Echo>());
    server->setExportedObject<Echo>(service);
    client = clientConnection(FileDescriptor(both[1]), context);
    client->setRemoteObjectInterface(Interface::interfaceWithProtocol<Echo>());
    client->setReadyHandler([this] { ready = true; });
    server->resume();
    client->resume();
    turns();
  }
  ~BothEnds() override {
    service->kept.clear();
    client->invalidate();
    server->invalidate();
    turns();
  }
  void turns() {
    while (reactor.turn(false)) {
    }
  }
  auto proxy() {
    return client->remoteObjectProxyWithErrorHandler<Echo>(
        [this](Error error) { errors.push_back(error); });
  }
  TransportContext context{reactor};
  Reactor reactor;
  std::shared_ptr<EchoService> service = std::make_shared<EchoService>();
  std::shared_ptr<Connection> server;
  std::shared_ptr<Connection> client;
  bool ready = false;
  std::vector<Error> errors;
};

TEST_F(BothEnds, LargeValueTravelsAsSealedMemoryBothWays) {
  ASSERT_TRUE(ready);
  for (const std::size_t size : {limits::kSealedMemoryBytes - 100, limits::kSealedMemoryBytes + 100,
                                 std::size_t{10} << 20}) {
    const Dictionary item(Value::map({{"x", std::string(size, 'a')}}));
    Dictionary answer;
    proxy().call<&Echo::echo>(item, [&](Dictionary result, Error) { answer = result; });
    turns();
    ASSERT_TRUE(answer == item);
    EXPECT_EQ(answer.buffer()->sealedFile() >= 0, size >= limits::kSealedMemoryBytes);
  }
  EXPECT_TRUE(errors.empty());
}

TEST_F(BothEnds, AValueOverTheLimitIsRefusedAndTheConnectionStays) {
  const Dictionary item(Value::map({{"x", std::string(limits::kFrameBytes, 'a')}}));
  proxy().call<&Echo::echo>(item, [&](Dictionary, Error) { FAIL(); });
  turns();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].code(), static_cast<int>(ConnectionErrorCode::refused));
  bool answered = false;
  proxy().call<&Echo::echo>(Dictionary(), [&](Dictionary, Error) { answered = true; });
  turns();
  EXPECT_TRUE(answered);
}

TEST_F(BothEnds, UnansweredRequestsFailWhenTheConnectionEnds) {
  proxy().call<&Echo::keep>([](Error) { FAIL(); });
  turns();
  server->invalidate("maintenance");
  turns();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].code(), static_cast<int>(ConnectionErrorCode::invalid));
  EXPECT_NE(errors[0].description().find("maintenance"), std::string::npos);
  EXPECT_EQ(client->goodbye(), "maintenance");
}

}  // namespace
}  // namespace keel::xpc
