// SPDX-License-Identifier: Apache-2.0
// Back-pressure: peers that request more than they read.
#include <gtest/gtest.h>

#include <array>

#include "runtime/xpc/connection_fixture.h"

namespace keel::xpc {
namespace {

// Requests whose replies the service keeps.
Bytes requestsToKeep(std::size_t count) {
  Bytes all;
  for (std::size_t id = 1; id <= count; ++id) {
    const Bytes one = framed(encoded(Value::list({1, id, 2, Value::list({})})));
    all.insert(all.end(), one.begin(), one.end());
  }
  return all;
}

TEST_F(RawPeer, TooManyUnansweredRequestsPauseReadingUntilHalfAreAnswered) {
  start();
  constexpr std::size_t kCount = limits::kUnansweredRequests + 2000;
  sendBytes(requestsToKeep(kCount));
  turns();
  EXPECT_EQ(service->kept.size(), limits::kUnansweredRequests + 1);
  // After one answer there are still too many.
  service->kept.erase(service->kept.begin());
  turns();
  EXPECT_EQ(service->kept.size(), limits::kUnansweredRequests);
  service->kept.erase(service->kept.begin(),
                      service->kept.begin() + limits::kUnansweredRequests / 2);
  turns();
  EXPECT_EQ(service->kept.size(), kCount - 1 - limits::kUnansweredRequests / 2);
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, RequestsAnsweredInABatchCountAsAnswered) {
  start();
  constexpr std::size_t kCount = limits::kUnansweredRequests + 2000;
  sendBytes(requestsToKeep(kCount));
  turns();
  std::size_t answered = 0;
  while (answered < kCount) {
    ASSERT_FALSE(service->kept.empty());
    std::vector<Reply<Error>> replies = std::exchange(service->kept, {});
    Reply<Error>::answerAll(replies, Error());
    answered += received().size();
  }
  EXPECT_EQ(answered, kCount);
}

TEST_F(RawPeer, ASlowReaderIsNotServedUntilItReads) {
  start();
  // The peer requests and does not read: reading it pauses once its backlog is large enough.
  const Value large = Value::map({{"x", std::string(60'000, 'a')}});
  constexpr std::size_t kCount = 200;
  Bytes all;
  for (std::size_t id = 1; id <= kCount; ++id) {
    const Bytes one = framed(encoded(Value::list({1, id, 0, Value::list({large})})));
    all.insert(all.end(), one.begin(), one.end());
  }
  const auto sendWhatItTakes = [&](std::size_t from) {
    for (;;) {
      turns();
      const ssize_t now = ::send(peer.get(), all.data() + from, all.size() - from, MSG_NOSIGNAL);
      if (now <= 0) return from;
      from += static_cast<std::size_t>(now);
    }
  };
  std::size_t sent = sendWhatItTakes(0);
  EXPECT_GT(sent, limits::kPauseReadingBytes);
  EXPECT_LT(sent, 4 * limits::kPauseReadingBytes);
  // Once it reads, everything is answered.
  std::size_t answered = received().size();
  while (answered < kCount) {
    sent = sendWhatItTakes(sent);
    const std::size_t more = received().size();
    ASSERT_GT(more, 0u);
    answered += more;
  }
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, ATooSlowReaderIsDroppedWithAGoodbye) {
  start(Value::list({"tell:"}));
  const String text(std::string(1u << 20, 'a'));
  std::size_t told = 0;
  while (invalidations == 0 && told < 100) {
    connection->remoteObjectProxyWithErrorHandler<Echo>([](Error) {}).call<&Echo::tell>(text);
    ++told;
    turns();
  }
  EXPECT_GE(told, limits::kWaitingBytes >> 20);
  EXPECT_LE(told, (limits::kWaitingBytes >> 20) + 2);
  ASSERT_EQ(invalidations, 1);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_NE(logged[0].find("too slow"), std::string::npos);
  // The frame in flight arrives whole, then the goodbye.
  const std::vector<Value> messages = received();
  ASSERT_GE(messages.size(), 1u);
  const auto& last = *messages.back().as<Value::List>();
  EXPECT_EQ(last[0], Value(5));
  EXPECT_TRUE(peerSeesTheEnd());
}

// Two connections whose backlogs are too large together, the first one's being the larger.
class UnderPressure : public RawPeer {
 protected:
  UnderPressure() {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    otherPeer.reset(both[1]);
    other = Connection::create(
        PeerIdentity(),
        std::make_unique<FrameStream>(FileDescriptor(both[0]), context,
                                      FrameStream::Terms{.frameLimitBytes = limits::kFrameBytes}),
        Connection::Options());
    other->setRemoteObjectInterface(Interface::interfaceWithProtocol<Echo>());
  }
  ~UnderPressure() override {
    relieve();
    other->invalidate();
  }

  void startBoth() {
    start(Value::list({"tell:"}));
    other->resume();
    const Bytes bytes = framed(encoded(hello(Value::list({"tell:"}))));
    ASSERT_EQ(::send(otherPeer.get(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
    turns();
  }
  void send(Connection& to, std::size_t sizeBytes) {
    const String text(std::string(1000, 'a'));
    for (std::size_t sent = 0; sent < sizeBytes; sent += 1000) {
      to.remoteObjectProxyWithErrorHandler<Echo>([](Error) {}).call<&Echo::tell>(text);
    }
  }
  std::size_t socketBytes() const {
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    EXPECT_EQ(::getsockopt(peer.get(), SOL_SOCKET, SO_SNDBUF, &bytes, &size), 0);
    return static_cast<std::size_t>(bytes);
  }
  void overload() {
    MemoryAccount::ofProcess().charge(limits::kTotalWaitingBytes);
    overloaded = true;
  }
  void relieve() {
    if (std::exchange(overloaded, false))
      MemoryAccount::ofProcess().refund(limits::kTotalWaitingBytes);
  }
  void drain(const FileDescriptor& socket) {
    char buffer[65536];
    while (::read(socket.get(), buffer, sizeof(buffer)) > 0) {
    }
  }

  FileDescriptor otherPeer;
  std::shared_ptr<Connection> other;
  bool overloaded = false;
};

TEST_F(UnderPressure, AReaderThatIsBeingDroppedIsNotWrittenToBeforeItsGoodbye) {
  startBoth();
  send(*connection, socketBytes() + 100'000);
  send(*other, socketBytes() + 20'000);
  turns();
  ASSERT_EQ(invalidations, 0);
  overload();
  // The first reads everything in its socket and could be flushed, in the very turn in which the
  // second one's backlog selects the first to be dropped.
  drain(peer);
  send(*other, 40'000);
  turns();
  EXPECT_EQ(invalidations, 1);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_NE(logged[0].find("too slow"), std::string::npos);
}

TEST_F(RawPeer, AUserOverQuotaIsRefusedUntilItHoldsLess) {
  int both[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
  peer.reset(both[1]);
  static MemoryAccount account;
  static const MemoryQuota quota{.account = &account, .limitBytes = 10'000};
  Connection::Options options;
  options.quota = &quota;
  const auto limited = Connection::create(
      PeerIdentity(),
      std::make_unique<FrameStream>(FileDescriptor(both[0]), context,
                                    FrameStream::Terms{.frameLimitBytes = limits::kFrameBytes}),
      options);
  limited->setExportedInterface(Interface::interfaceWithProtocol<Echo>());
  limited->setExportedObject<Echo>(service);
  limited->resume();
  sendMessage(hello());
  received();
  const BufferRef held = Buffer::copyOf(Bytes(9000), account);
  const Value item = Value::map({{"x", std::string(2000, 'a')}});
  sendMessage(Value::list({1, 1, 0, Value::list({item})}));
  const std::vector<Value> refused = received();
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].as<Value::List>()->at(2), Value(static_cast<int>(FailureCode::overQuota)));
  // A short name still fits the quota; the charge for it is released after the call.
  sendMessage(Value::list({2, 1, Value::list({"name"})}));
  EXPECT_EQ(service->told.size(), 1u);
  EXPECT_EQ(account.bytes(), 9000 + sizeof(Buffer));
  sendMessage(Value::list({1, 2, 0, Value::list({Value::map({{"x", "small"}})})}));
  EXPECT_EQ(received().at(0).as<Value::List>()->at(0), Value(3));
  limited->invalidate();
}

TEST_F(RawPeer, AReaderThatLeavesItsFilesUnreadIsDropped) {
  const auto makeItem = [](char fill) {
    return Dictionary(Value::map({{"x", std::string(1u << 20, fill)}}));
  };
  start(Value::list({"echo:reply:", "tell:"}), /*descriptors=*/true);
  std::size_t told = 0;
  while (invalidations == 0 && told < 300) {
    connection->remoteObjectProxyWithErrorHandler<Echo>([](Error) {})
        .call<&Echo::echo>(makeItem(static_cast<char>('a' + told % 26)), [](Dictionary, Error) {});
    ++told;
    turns();
    ASSERT_LE(Buffer::sealedFileCount(), 80u);
  }
  EXPECT_EQ(invalidations, 1);
  EXPECT_LE(told, (limits::kUnreadSealedBytes + limits::kWaitingBytes) / (1u << 20) + 4);
}

TEST_F(RawPeer, HeavyRequestsAreServedOneAtATime) {
  start();
  Bytes all;
  for (std::size_t id = 1; id <= 3; ++id) {
    const Bytes one = framed(encoded(Value::list({1, id, 3, Value::list({})})));
    all.insert(all.end(), one.begin(), one.end());
  }
  sendBytes(all);
  turns();
  ASSERT_EQ(service->kept.size(), 1u);
  service->kept.erase(service->kept.begin());
  turns();
  ASSERT_EQ(service->kept.size(), 1u);
  service->kept.erase(service->kept.begin());
  turns();
  EXPECT_EQ(service->kept.size(), 1u);
  EXPECT_EQ(received().size(), 2u);
}

struct PeerWithHeavyRequests : RawPeer {
  explicit PeerWithHeavyRequests(
      std::shared_ptr<HeavyRequestQueue> given = std::make_shared<HeavyRequestQueue>())
      : RawPeer(Connection::Options{.heavyRequests = given}), heavyRequests(std::move(given)) {}
  const std::shared_ptr<HeavyRequestQueue> heavyRequests;
};

TEST_F(PeerWithHeavyRequests, HeavyRequestsOfOneUserAreServedOneAtATimeOverAllConnections) {
  start();
  int both[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
  const FileDescriptor otherPeer(both[1]);
  const auto other = Connection::create(
      PeerIdentity(),
      std::make_unique<FrameStream>(FileDescriptor(both[0]), context,
                                    FrameStream::Terms{.frameLimitBytes = limits::kFrameBytes}),
      Connection::Options{.heavyRequests = heavyRequests});
  const auto otherService = std::make_shared<EchoService>();
  other->setExportedInterface(Interface::interfaceWithProtocol<Echo>());
  other->setExportedObject<Echo>(otherService);
  other->resume();
  const auto sendOther = [&](const Value& message) {
    const Bytes bytes = framed(encoded(message));
    ASSERT_EQ(::send(otherPeer.get(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
    turns();
  };
  sendOther(hello());
  const Value survey = Value::list({1, 1, 3, Value::list({})});
  sendMessage(survey);
  turns();
  sendOther(survey);
  EXPECT_EQ(service->kept.size(), 1u);
  EXPECT_EQ(otherService->kept.size(), 0u);
  service->kept.clear();
  turns();
  EXPECT_EQ(otherService->kept.size(), 1u);
  EXPECT_EQ(otherService->user, PeerIdentity().uid);
  sendMessage(Value::list({1, 2, 3, Value::list({})}));
  turns();
  EXPECT_EQ(service->kept.size(), 0u);
  service->user.reset();
  // A connection that ends releases its place in the queue.
  otherService->kept.clear();
  other->invalidate();
  turns();
  EXPECT_EQ(service->kept.size(), 1u);
  EXPECT_EQ(service->user, 501);
}

TEST_F(PeerWithHeavyRequests, APendingHeavyRequestEndsWithItsConnection) {
  start();
  MemoryAccount& user = MemoryAccount::ofProcess();
  heavyRequests->enter(&user, [] {});
  sendMessage(Value::list({1, 1, 3, Value::list({})}));
  turns();
  EXPECT_EQ(service->kept.size(), 0u);
  connection->invalidate();
  heavyRequests->leave(&user);
  turns();
  EXPECT_EQ(service->kept.size(), 0u);
  bool isFree = false;
  heavyRequests->enter(&user, [&] { isFree = true; });
  EXPECT_TRUE(isFree);
  heavyRequests->leave(&user);
}

TEST_F(RawPeer, AnIncompleteLargeFrameIsChargedToItsUser) {
  int both[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
  peer.reset(both[1]);
  static MemoryAccount account;
  static const MemoryQuota quota{.account = &account, .limitBytes = 200'000};
  FrameStream::Terms terms{.frameLimitBytes = limits::kFrameBytes, .quota = &quota};
  const auto limited = Connection::create(
      PeerIdentity(),
      std::make_unique<FrameStream>(FileDescriptor(both[0]), context, std::move(terms)),
      Connection::Options());
  limited->resume();
  sendMessage(hello());
  received();
  Bytes half;
  for (int i = 0; i < 4; ++i)
    half.push_back(static_cast<std::byte>(limits::kFrameBytes >> (8 * i)));
  half.resize(200'000);
  sendBytes(half);
  EXPECT_EQ(account.bytes(), 200'000u);
  sendBytes(Bytes(150'000));
  const std::vector<Value> words = received();
  ASSERT_EQ(words.size(), 1u);
  EXPECT_EQ(words[0].as<Value::List>()->at(0), Value(5));
  EXPECT_EQ(account.bytes(), 0u);
}

TEST_F(RawPeer, APeerThatReadsNothingForAMinuteIsDropped) {
  start(Value::list({"echo:reply:", "tell:"}));
  const String text(std::string(1u << 20, 'a'));
  connection->remoteObjectProxyWithErrorHandler<Echo>([](Error) {}).call<&Echo::tell>(text);
  turns();
  for (int second = 0; second < limits::kStallSeconds; ++second) {
    EXPECT_EQ(invalidations, 0);
    clock += std::chrono::seconds(1);
    turns();
  }
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, APeerThatReadsALittleEverySecondStays) {
  start(Value::list({"echo:reply:", "tell:"}));
  const String text(std::string(8u << 20, 'a'));
  connection->remoteObjectProxyWithErrorHandler<Echo>([](Error) {}).call<&Echo::tell>(text);
  turns();
  for (int second = 0; second < 3 * limits::kStallSeconds; ++second) {
    std::array<char, 40'000> some;
    ASSERT_GT(::read(peer.get(), some.data(), some.size()), 0);
    clock += std::chrono::seconds(1);
    turns();
  }
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, AStalledQueuePausesReading) {
  connection->setQueue(SerialQueue::create("test", executor), executor);
  connection->resume();
  sendMessage(hello());
  const Bytes one = framed(encoded(Value::list({2, 1, Value::list({std::string(10'000, 'x')})})));
  std::size_t taken = 0;
  for (int i = 0; i < 1000; ++i) {
    const ssize_t now = ::send(peer.get(), one.data(), one.size(), MSG_NOSIGNAL);
    turns();
    if (now != static_cast<ssize_t>(one.size())) break;
    ++taken;
  }
  EXPECT_LT(taken, 500u);
  executor.runAll();
  turns();
  executor.runAll();
  turns();
  executor.runAll();
  EXPECT_GE(service->told.size(), taken);
}

}  // namespace
}  // namespace keel::xpc
