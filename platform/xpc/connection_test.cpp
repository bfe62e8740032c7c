// SPDX-License-Identifier: Apache-2.0
#include "platform/xpc/connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "platform/dispatch/manual_executor.h"
#include "platform/foundation/sealed_memory.h"
#include "platform/foundation/value.h"
#include "platform/logging/log_system.h"
#include "platform/xpc/client_endpoint.h"
#include "platform/xpc/frame_stream.h"
#include "platform/xpc/limits.h"
#include "platform/xpc/remote_proxy.h"

namespace keel::xpc {

class Echo {
 public:
  virtual ~Echo() = default;
  virtual void echo(Dictionary item, Reply<Dictionary, Error> reply) = 0;
  virtual void tell(String text) = 0;
  virtual void keep(Reply<Error> reply) = 0;
};
using EchoMethods =
    MethodTable<Method<"echo:reply:", &Echo::echo>, Method<"tell:", &Echo::tell>, Method<"keep:", &Echo::keep>>;
EchoMethods methodTableOf(const Echo*);

namespace {


struct EchoService final : Echo {
  void echo(Dictionary item, Reply<Dictionary, Error> reply) override { reply(std::move(item), nullptr); }
  void tell(String text) override { told.emplace_back(text.view()); }
  void keep(Reply<Error> reply) override { kept.push_back(std::move(reply)); }
  std::vector<std::string> told;
  std::vector<Reply<Error>> kept;
};

using Bytes = std::vector<std::byte>;

Bytes encoded(const Value& value) {
  Bytes bytes;
  cbor::Writer(bytes).value(value);
  return bytes;
}

Bytes framed(const Bytes& content) {
  Bytes bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(content.size() >> (8 * i)));
  bytes.insert(bytes.end(), content.begin(), content.end());
  return bytes;
}

Value hello(const Value& selectors = Value::list({}), bool descriptors = false) {
  return Value::list({0, 1, selectors, Value::map({{"descriptors", descriptors}})});
}

// A service's end of a connection on a hand-driven reactor, and a raw socket as its peer.
class RawPeer : public testing::Test {
 protected:
  RawPeer() {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    peer.reset(both[1]);
    PeerIdentity identity;
    identity.pid = 345;
    identity.uid = 501;
    identity.auditSession = 3;
    identity.processName = "mailmod";
    connection = Connection::create(identity,
                                    std::make_unique<FrameStream>(FileDescriptor(both[0]), reactor, limits::kFrameBytes),
                                    Connection::Options());
    connection->setExportedInterface(Interface::interfaceWithProtocol<Echo>());
    connection->setExportedObject<Echo>(service);
    connection->setRemoteObjectInterface(Interface::interfaceWithProtocol<Echo>());
    connection->setInterruptionHandler([this] { ++interruptions; });
    connection->setInvalidationHandler([this] { ++invalidations; });
  }
  ~RawPeer() override {
    service->kept.clear();
    connection->invalidate();
    turns();
    executor.runAll();
  }

  void turns() {
    while (reactor.turn(/*wait=*/false)) {
    }
  }
  void sendBytes(const Bytes& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t now = ::send(peer.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (now > 0) sent += static_cast<std::size_t>(now);
      if (now < 0 && errno != EAGAIN) return;
      turns();
    }
  }
  void sendMessage(const Value& message) { sendBytes(framed(encoded(message))); }
  void start(const Value& selectors = Value::list({}), bool descriptors = false) {
    connection->resume();
    sendMessage(hello(selectors, descriptors));
    const std::vector<Value> first = received();
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(first[0], Value::list({0, 1, Value::list({"echo:reply:", "tell:", "keep:"}), Value::map({{"descriptors", true}})}));
  }
  // All that has come from the connection, decoded.
  std::vector<Value> received() {
    turns();
    char buffer[65536];
    for (ssize_t got; (got = ::read(peer.get(), buffer, sizeof(buffer))) != 0;) {
      if (got < 0) break;
      pending.append(buffer, static_cast<std::size_t>(got));
      turns();
    }
    std::vector<Value> messages;
    while (pending.size() >= 4) {
      std::uint32_t length = 0;
      std::memcpy(&length, pending.data(), 4);
      if (pending.size() < 4 + length) break;
      const auto value = cbor::decode(std::as_bytes(std::span(pending)).subspan(4, length), 64);
      EXPECT_TRUE(value);
      if (value) messages.push_back(*value);
      pending.erase(0, 4 + length);
    }
    return messages;
  }
  bool peerSeesTheEnd() {
    turns();
    char byte;
    const ssize_t got = ::recv(peer.get(), &byte, 1, MSG_PEEK);
    return got == 0 || (got < 0 && errno == ECONNRESET);
  }
  static Value failure(const Value& id, FailureCode code, const char* text) {
    return Value::list({4, id, static_cast<int>(code), text});
  }

  std::vector<std::string> logged;
  LogCapture capture{[this](const LogMessage& message) {
    if (message.level >= LogLevel::error) logged.emplace_back(message.text);
  }};
  Reactor reactor;
  ManualExecutor executor;
  FileDescriptor peer;
  std::string pending;
  std::shared_ptr<EchoService> service = std::make_shared<EchoService>();
  std::shared_ptr<Connection> connection;
  int interruptions = 0;
  int invalidations = 0;
};

TEST_F(RawPeer, RequestIsAnsweredWithItsId) {
  start();
  sendMessage(Value::list({1, 17, 0, Value::list({Value::map({{"a", 1}})})}));
  EXPECT_EQ(received(), std::vector{Value::list({3, 17, Value::list({Value::map({{"a", 1}}), nullptr})})});
}

TEST_F(RawPeer, OneWayMessageIsNotAnswered) {
  start();
  sendMessage(Value::list({2, 1, Value::list({"hello"})}));
  EXPECT_TRUE(received().empty());
  EXPECT_EQ(service->told, std::vector<std::string>{"hello"});
}

TEST_F(RawPeer, FramesCutAnywhereAreServed) {
  start();
  Bytes bytes = framed(encoded(Value::list({1, 1, 0, Value::list({nullptr})})));
  const Bytes second = framed(encoded(Value::list({2, 1, Value::list({"x"})})));
  bytes.insert(bytes.end(), second.begin(), second.end());
  for (const std::byte byte : bytes) sendBytes({byte});
  EXPECT_EQ(received().size(), 1u);
  EXPECT_EQ(service->told.size(), 1u);
}

TEST_F(RawPeer, DroppedReplyBlockAnswersAFailure) {
  start();
  sendMessage(Value::list({1, 1, 2, Value::list({})}));
  EXPECT_TRUE(received().empty());
  service->kept.clear();
  EXPECT_EQ(received(), std::vector{failure(1, FailureCode::unanswered, "the request was dropped unanswered")});
  EXPECT_EQ(interruptions, 0);
}

TEST_F(RawPeer, UndecodableMessageIsAFailureAnInterruptionAndOneLogLine) {
  start();
  const std::vector<Bytes> nonsense = {
      {},                                                   // nothing at all
      {std::byte{0xff}},                                    // a break
      {std::byte{0x83}, std::byte{0x01}},                   // cut short
      encoded(Value::list({})),                             // no kind
      encoded(Value::list({9, 1})),                         // no such kind
      encoded(Value::list({Value(std::uint64_t{1} << 32), 1})),  // nor one that looks like another when cut
      encoded(Value::map({{"kind", 1}})),                   // no array
      encoded(Value::list({1, "id", 0, Value::list({})})),  // an id that is no number
      Bytes(3000, std::byte{0x81}),                         // nested without end
      encoded(Value::list({1, -4, 0, Value::list({})})),
  };
  for (const Bytes& bytes : nonsense) {
    sendBytes(framed(bytes));
    const std::vector<Value> answers = received();
    ASSERT_EQ(answers.size(), 1u);
    const auto& items = *answers[0].as<Value::List>();
    EXPECT_EQ(items[0], Value(4));
    EXPECT_EQ(items[1], Value(nullptr));
    EXPECT_EQ(items[2], Value(1));
  }
  EXPECT_EQ(interruptions, static_cast<int>(nonsense.size()));
  EXPECT_EQ(logged.size(), 1u);
  EXPECT_EQ(invalidations, 0);
  sendMessage(Value::list({1, 1, 0, Value::list({nullptr})}));
  EXPECT_EQ(received().size(), 1u);
}

TEST_F(RawPeer, WrongMessagesNameWhatIsWrong) {
  start();
  sendMessage(Value::list({1, 1, 3, Value::list({})}));
  EXPECT_EQ(received(), std::vector{failure(1, FailureCode::unknownMethod, "there is no method 3")});
  sendMessage(Value::list({1, 2, 0, Value::list({5})}));
  EXPECT_EQ(received(), std::vector{failure(2, FailureCode::wrongArguments, "the arguments do not fit echo:reply:")});
  sendMessage(Value::list({1, 3, 0, Value::list({nullptr, nullptr})}));
  EXPECT_EQ(received(), std::vector{failure(3, FailureCode::wrongArguments, "the arguments do not fit echo:reply:")});
  // A method with a reply sent one-way, and the other way round.
  sendMessage(Value::list({2, 0, Value::list({nullptr})}));
  EXPECT_EQ(received(), std::vector{failure(nullptr, FailureCode::wrongArguments, "the arguments do not fit echo:reply:")});
  sendMessage(Value::list({1, 4, 1, Value::list({"x"})}));
  EXPECT_EQ(received(), std::vector{failure(4, FailureCode::wrongArguments, "the arguments do not fit tell:")});
  // Text that is not UTF-8.
  Bytes bad = encoded(Value::list({2, 1, Value::list({"ab"})}));
  bad[bad.size() - 1] = std::byte{0xff};
  sendBytes(framed(bad));
  EXPECT_EQ(received(), std::vector{failure(nullptr, FailureCode::wrongArguments, "the arguments do not fit tell:")});
  EXPECT_EQ(interruptions, 6);
  EXPECT_TRUE(service->told.empty());
}

TEST_F(RawPeer, DeepValueIsTakenToTheLimitAndNoFurther) {
  start();
  const auto nested = [](std::size_t depth) {
    Bytes bytes = encoded(Value::list({1, depth, 0}));
    bytes[0] = std::byte{0x84};
    bytes.push_back(std::byte{0x81});
    bytes.push_back(std::byte{0xa1});  // {"a": [[...]]}
    for (const std::byte byte : encoded(Value("a"))) bytes.push_back(byte);
    for (std::size_t i = 1; i < depth; ++i) bytes.push_back(std::byte{i + 1 == depth ? std::uint8_t{0x80} : std::uint8_t{0x81}});
    return bytes;
  };
  sendBytes(framed(nested(limits::kDepth)));
  sendBytes(framed(nested(limits::kDepth + 1)));
  char buffer[65536];
  turns();
  const ssize_t got = ::read(peer.get(), buffer, sizeof(buffer));
  ASSERT_GT(got, 0);
  std::uint32_t length = 0;
  std::memcpy(&length, buffer, 4);
  EXPECT_EQ(buffer[5], 3);  // a reply
  EXPECT_EQ(buffer[4 + length + 5], 4);  // a failure
}

TEST_F(RawPeer, RequestIdsMustRise) {
  start();
  sendMessage(Value::list({1, 5, 2, Value::list({})}));
  sendMessage(Value::list({1, 5, 0, Value::list({nullptr})}));
  EXPECT_EQ(received(), std::vector{failure(5, FailureCode::badRequestId, "request ids must rise")});
  sendMessage(Value::list({1, 4, 0, Value::list({nullptr})}));
  EXPECT_EQ(received(), std::vector{failure(4, FailureCode::badRequestId, "request ids must rise")});
  sendMessage(Value::list({1, 6, 0, Value::list({nullptr})}));
  EXPECT_EQ(received().size(), 1u);
  EXPECT_EQ(service->kept.size(), 1u);
}

TEST_F(RawPeer, OversizedRequestIsSkippedAndAnswered) {
  start();
  const std::size_t size = limits::kFrameBytes + 1;
  Bytes bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(size >> (8 * i)));
  for (const std::byte byte : encoded(Value::list({1, 9, 0, Value::list({})}))) bytes.push_back(byte);
  bytes.resize(4 + size);
  sendBytes(bytes);
  EXPECT_EQ(received(), std::vector{failure(9, FailureCode::tooLarge,
                                            "a message of 16777217 bytes is too large; at most 16777216 are taken")});
  sendMessage(Value::list({1, 10, 0, Value::list({nullptr})}));
  EXPECT_EQ(received().size(), 1u);
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, LargestFrameIsTaken) {
  start();
  Bytes content = encoded(Value::list({1, 9, 0, Value::list({Value::map({{"x", std::string(limits::kFrameBytes - 13, 'a')}})})}));
  ASSERT_EQ(content.size(), limits::kFrameBytes);
  sendBytes(framed(content));
  const std::vector<Value> answers = received();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].as<Value::List>()->at(0), Value(3));
}

TEST_F(RawPeer, LengthWithoutSenseEndsTheConnection) {
  start();
  sendBytes(Bytes(4, std::byte{0xff}));
  EXPECT_EQ(received(), std::vector{Value::list({5, "a frame of 4294967295 bytes makes no sense"})});
  EXPECT_TRUE(peerSeesTheEnd());
  EXPECT_EQ(invalidations, 1);
  EXPECT_EQ(logged.size(), 1u);
}

TEST_F(RawPeer, BadHellosEndTheConnectionWithAWord) {
  const std::vector<std::pair<Value, const char*>> hellos = {
      {Value::list({1, 1, 0, Value::list({nullptr})}), "its first message is no hello"},
      {Value::list({0, 2, Value::list({}), Value::map({})}), "protocol version 2 is not known here; this side speaks 1"},
      {Value::list({0, 1, "selectors", Value::map({})}), "its hello cannot be decoded"},
      {Value::list({0, 1, Value::list({1}), Value::map({})}), "its hello cannot be decoded"},
      {Value::list({0, 1, Value::list({}), Value::map({{"descriptors", 1}})}), "its hello cannot be decoded"},
      {Value::list({0, 1, Value::list({})}), "its hello cannot be decoded"},
      {Value("hello"), "its hello cannot be decoded"},
  };
  for (const auto& [message, words] : hellos) {
    int both[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    peer.reset(both[1]);
    pending.clear();
    const auto other =
        Connection::create(PeerIdentity(), std::make_unique<FrameStream>(FileDescriptor(both[0]), reactor, limits::kFrameBytes),
                           Connection::Options());
    int ended = 0;
    other->setInvalidationHandler([&] { ++ended; });
    other->resume();
    sendMessage(message);
    const std::vector<Value> answers = received();
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[1], Value::list({5, words}));
    EXPECT_TRUE(peerSeesTheEnd());
    EXPECT_EQ(ended, 1);
  }
}

TEST_F(RawPeer, UnknownHelloOptionsAreIgnored) {
  connection->resume();
  sendMessage(Value::list({0, 1, Value::list({"future:"}), Value::map({{"later", Value::list({1, 2})}, {"descriptors", false}})}));
  sendMessage(Value::list({1, 1, 0, Value::list({nullptr})}));
  EXPECT_EQ(received().size(), 2u);
}

TEST_F(RawPeer, HelloOverItsBoundEndsTheConnection) {
  connection->resume();
  const std::size_t size = limits::kHelloBytes + 1;
  Bytes bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(size >> (8 * i)));
  bytes.resize(100);
  sendBytes(bytes);
  const std::vector<Value> answers = received();
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_EQ(answers[1], Value::list({5, "a hello of 65537 bytes is too large"}));
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, SecondHelloEndsTheConnection) {
  start();
  sendMessage(hello());
  EXPECT_EQ(received(), std::vector{Value::list({5, "it said hello twice"})});
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, AnswersAreNeverAnswered) {
  start();
  sendMessage(Value::list({3, 1, Value::list({})}));
  sendMessage(Value::list({4, 1, 1, "x"}));
  sendMessage(Value::list({4, nullptr, 1, "x"}));
  sendMessage(Value::list({3, "x"}));
  EXPECT_TRUE(received().empty());
  EXPECT_EQ(interruptions, 4);
}

TEST_F(RawPeer, GoodbyeEndsTheConnectionAndIsRemembered) {
  start();
  sendMessage(Value::list({5, "that is all"}));
  EXPECT_TRUE(peerSeesTheEnd());
  EXPECT_EQ(connection->farewell(), "that is all");
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

TEST_F(RawPeer, CallReachesThePeerByItsOwnNumber) {
  start(Value::list({"other:", "tell:"}));
  int errors = 0;
  connection->remoteObjectProxyWithErrorHandler<Echo>([&](Error) { ++errors; }).call<&Echo::tell>(String("hi"));
  EXPECT_EQ(received(), std::vector{Value::list({2, 1, Value::list({"hi"})})});
  EXPECT_EQ(errors, 0);
}

TEST_F(RawPeer, CallThatThePeerLacksIsReportedLater) {
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

TEST_F(RawPeer, AlternatingCallsAreNotMixedUp) {
  start(Value::list({"tell:"}));
  for (const char* text : {"a", "a", "b", "a"}) {
    connection->remoteObjectProxyWithErrorHandler<Echo>([](Error) {}).call<&Echo::tell>(String(text));
  }
  std::vector<Value> expected;
  for (const char* text : {"a", "a", "b", "a"}) expected.push_back(Value::list({2, 0, Value::list({text})}));
  EXPECT_EQ(received(), expected);
}

TEST_F(RawPeer, TooManyUnansweredRequestsStopTheReadingUntilHalfAreAnswered) {
  start();
  constexpr std::size_t kCount = limits::kUnansweredRequests + 2000;
  Bytes all;
  for (std::size_t id = 1; id <= kCount; ++id) {
    const Bytes one = framed(encoded(Value::list({1, id, 2, Value::list({})})));
    all.insert(all.end(), one.begin(), one.end());
  }
  sendBytes(all);
  turns();
  EXPECT_EQ(service->kept.size(), limits::kUnansweredRequests + 1);
  // One answered: still too many.
  service->kept.erase(service->kept.begin());
  turns();
  EXPECT_EQ(service->kept.size(), limits::kUnansweredRequests);
  service->kept.erase(service->kept.begin(), service->kept.begin() + limits::kUnansweredRequests / 2);
  turns();
  EXPECT_EQ(service->kept.size(), kCount - 1 - limits::kUnansweredRequests / 2);
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, SlowReaderIsNotServedUntilItReads) {
  start();
  // The peer asks and does not read: its requests are not read any more once enough waits for it.
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
  // It reads at last: everything is answered.
  std::size_t answered = received().size();
  while (answered < kCount) {
    sent = sendWhatItTakes(sent);
    const std::size_t more = received().size();
    ASSERT_GT(more, 0u);
    answered += more;
  }
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, ReaderThatIsTooSlowIsDroppedWithAGoodbye) {
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
  // What was begun comes whole, then the goodbye.
  const std::vector<Value> messages = received();
  ASSERT_GE(messages.size(), 1u);
  const auto& last = *messages.back().as<Value::List>();
  EXPECT_EQ(last[0], Value(5));
  EXPECT_TRUE(peerSeesTheEnd());
}

// Sends a request together with one descriptor.
void sendWithDescriptor(int socket, const Bytes& bytes, int descriptor) {
  iovec vector{const_cast<std::byte*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))]{};
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof(control);
  cmsghdr* rights = CMSG_FIRSTHDR(&header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(int));
  ASSERT_GT(::sendmsg(socket, &header, 0), 0);
}

TEST_F(RawPeer, DescriptorThatNoMessageClaimsEndsTheConnection) {
  start();
  const std::string content = "bytes";
  const auto file = sealedMemoryOf(std::as_bytes(std::span(content)));
  sendWithDescriptor(peer.get(), framed(encoded(Value::list({1, 1, 0, Value::list({nullptr})}))), file->get());
  const std::vector<Value> messages = received();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[1], Value::list({5, "descriptors that no message claims"}));
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, DescriptorOfARefusedMessageGoesWithIt) {
  start();
  const std::string content = "bytes";
  const auto file = sealedMemoryOf(std::as_bytes(std::span(content)));
  sendMessage(Value::list({1, 7, 0, Value::list({nullptr})}));
  sendWithDescriptor(peer.get(), framed(encoded(Value::list({1, 7, 0, Value::list({nullptr})}))), file->get());
  sendWithDescriptor(peer.get(), framed(encoded(Value::list({1, 8, 99, Value::list({nullptr})}))), file->get());
  sendMessage(Value::list({1, 9, 0, Value::list({nullptr})}));
  const std::vector<Value> messages = received();
  ASSERT_EQ(messages.size(), 4u);
  EXPECT_EQ(messages[1], failure(7, FailureCode::badRequestId, "request ids must rise"));
  EXPECT_EQ(messages[2], failure(8, FailureCode::unknownMethod, "there is no method 99"));
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, DescriptorOfAnythingElseEndsTheConnectionUnserved) {
  start();
  sendWithDescriptor(peer.get(), framed(encoded(Value::list({2, 1, Value::list({"x"})}))), peer.get());
  EXPECT_EQ(received(), std::vector{Value::list({5, "a descriptor that is no memory file"})});
  EXPECT_EQ(invalidations, 1);
  EXPECT_TRUE(service->told.empty());
}

TEST_F(RawPeer, UserThatHoldsTooMuchIsRefusedUntilItHoldsLess) {
  int both[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
  peer.reset(both[1]);
  MemoryAccount& account = *new MemoryAccount;
  Connection::Options options;
  options.quota = {&account, 10'000};
  const auto limited = Connection::create(
      PeerIdentity(), std::make_unique<FrameStream>(FileDescriptor(both[0]), reactor, limits::kFrameBytes), options);
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
  // A name still gets through; what was sent for a moment is given back.
  sendMessage(Value::list({2, 1, Value::list({"name"})}));
  EXPECT_EQ(service->told.size(), 1u);
  EXPECT_EQ(account.bytes(), 9000 + sizeof(Buffer));
  sendMessage(Value::list({1, 2, 0, Value::list({Value::map({{"x", "small"}})})}));
  EXPECT_EQ(received().at(0).as<Value::List>()->at(0), Value(3));
  limited->invalidate();
}

TEST_F(RawPeer, DescriptionIsStable) {
  EXPECT_TRUE(connection->description().ends_with("pid 345 (mailmod) uid 501 session 3>")) << connection->description();
  const std::string before = connection->description();
  connection->resume();
  peer.reset();
  turns();
  EXPECT_EQ(connection->description(), before);
}

TEST_F(RawPeer, QueueOfItsOwnRunsMessagesAndHandlers) {
  connection->setQueue(SerialQueue::create("test", executor));
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

TEST_F(RawPeer, QueueThatStandsStillStopsTheReading) {
  connection->setQueue(SerialQueue::create("test", executor));
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

TEST_F(RawPeer, ReplyFromAnotherThreadArrives) {
  start();
  sendMessage(Value::list({1, 1, 2, Value::list({})}));
  ASSERT_EQ(service->kept.size(), 1u);
  std::thread([&] { service->kept[0](nullptr); }).join();
  EXPECT_EQ(received(), std::vector{Value::list({3, 1, Value::list({nullptr})})});
}

// Two ends of ours.
struct BothEnds : testing::Test {
  BothEnds() {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    server = Connection::create(PeerIdentity(),
                                std::make_unique<FrameStream>(FileDescriptor(both[0]), reactor, limits::kFrameBytes),
                                Connection::Options());
    server->setExportedInterface(Interface::interfaceWithProtocol<Echo>());
    server->setExportedObject<Echo>(service);
    client = clientConnection(FileDescriptor(both[1]), reactor);
    client->setRemoteObjectInterface(Interface::interfaceWithProtocol<Echo>());
    client->setReadyHandler([this] { ready = true; });
    server->resume();
    client->resume();
    turns();
  }
  ~BothEnds() override {
    service->kept.clear();
    client->invalidate();
    turns();
  }
  void turns() {
    while (reactor.turn(false)) {
    }
  }
  auto proxy() {
    return client->remoteObjectProxyWithErrorHandler<Echo>([this](Error error) { errors.push_back(error); });
  }
  Reactor reactor;
  std::shared_ptr<EchoService> service = std::make_shared<EchoService>();
  std::shared_ptr<Connection> server;
  std::shared_ptr<Connection> client;
  bool ready = false;
  std::vector<Error> errors;
};

TEST_F(BothEnds, LargeValueTravelsAsSealedMemoryBothWays) {
  ASSERT_TRUE(ready);
  for (const std::size_t size : {limits::kSealedMemoryBytes - 100, limits::kSealedMemoryBytes + 100, std::size_t{10} << 20}) {
    const Dictionary item(Value::map({{"x", std::string(size, 'a')}}));
    Dictionary answer;
    proxy().call<&Echo::echo>(item, [&](Dictionary result, Error) { answer = result; });
    turns();
    ASSERT_TRUE(answer == item);
    EXPECT_EQ(answer.buffer()->sealedFile() >= 0, size >= limits::kSealedMemoryBytes);
  }
  EXPECT_TRUE(errors.empty());
}

TEST_F(BothEnds, ValueOverTheLimitIsRefusedAndTheConnectionStays) {
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

TEST_F(BothEnds, UnansweredRequestsHearOfTheEnd) {
  proxy().call<&Echo::keep>([](Error) { FAIL(); });
  turns();
  server->invalidate("maintenance");
  turns();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].code(), static_cast<int>(ConnectionErrorCode::invalid));
  EXPECT_NE(errors[0].description().find("maintenance"), std::string::npos);
  EXPECT_EQ(client->farewell(), "maintenance");
}

}  // namespace
}  // namespace keel::xpc
