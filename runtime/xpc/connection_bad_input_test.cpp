// SPDX-License-Identifier: Apache-2.0
// Malformed and hostile messages.
#include <gtest/gtest.h>

#include "runtime/xpc/connection_fixture.h"

namespace keel::xpc {
namespace {

TEST_F(RawPeer, AnUndecodableMessageCausesAFailureAnInterruptionAndOneLogLine) {
  start();
  const std::vector<Bytes> nonsense = {
      {},                                  // nothing at all
      {std::byte{0xff}},                   // a break
      {std::byte{0x83}, std::byte{0x01}},  // cut short
      encoded(Value::list({})),            // no kind
      encoded(Value::list({9, 1})),        // no such kind
      encoded(Value::list(
          {Value(std::uint64_t{1} << 32), 1})),  // nor one that looks like another when cut
      encoded(Value::map({{"kind", 1}})),        // no array
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

TEST_F(RawPeer, FailuresNameTheirReason) {
  start();
  sendMessage(Value::list({1, 1, 6, Value::list({})}));
  EXPECT_EQ(received(),
            std::vector{failure(1, FailureCode::unknownMethod, "there is no method 6")});
  sendMessage(Value::list({1, 2, 0, Value::list({5})}));
  EXPECT_EQ(received(), std::vector{failure(2, FailureCode::wrongArguments,
                                            "the arguments do not fit echo:reply:")});
  sendMessage(Value::list({1, 3, 0, Value::list({nullptr, nullptr})}));
  EXPECT_EQ(received(), std::vector{failure(3, FailureCode::wrongArguments,
                                            "the arguments do not fit echo:reply:")});
  // A method with a reply sent one-way, and the other way round.
  sendMessage(Value::list({2, 0, Value::list({nullptr})}));
  EXPECT_EQ(received(), std::vector{failure(nullptr, FailureCode::wrongArguments,
                                            "the arguments do not fit echo:reply:")});
  sendMessage(Value::list({1, 4, 1, Value::list({"x"})}));
  EXPECT_EQ(received(),
            std::vector{failure(4, FailureCode::wrongArguments, "the arguments do not fit tell:")});
  EXPECT_EQ(interruptions, 5);
  EXPECT_TRUE(service->told.empty());
}

TEST_F(RawPeer, ArgumentsThatAreNotWellFormedAreUndecodable) {
  start();
  const auto expectUndecodable = [&](const Bytes& message, const Value& id) {
    sendBytes(framed(message));
    EXPECT_EQ(received(),
              std::vector{failure(id, FailureCode::undecodable, "the message cannot be decoded")});
  };
  // Text that is not UTF-8.
  Bytes bad = encoded(Value::list({2, 1, Value::list({"ab"})}));
  bad[bad.size() - 1] = std::byte{0xff};
  expectUndecodable(bad, nullptr);
  // Bytes behind the message, or another message.
  Bytes longer = encoded(Value::list({1, 1, 0, Value::list({nullptr})}));
  longer.push_back(std::byte{0});
  expectUndecodable(longer, 1);
  Bytes two = encoded(Value::list({1, 2, 0, Value::list({nullptr})}));
  for (const std::byte byte : encoded(Value::list({1, 3, 0, Value::list({nullptr})})))
    two.push_back(byte);
  expectUndecodable(two, 2);
  // Of a method that is served later, too.
  Bytes heavy = encoded(Value::list({1, 4, 3, Value::list({})}));
  heavy.push_back(std::byte{0});
  expectUndecodable(heavy, 4);
  EXPECT_TRUE(service->told.empty());
  EXPECT_TRUE(service->kept.empty());
}

TEST_F(RawPeer, ValuesAreAcceptedUpToTheDepthLimit) {
  start();
  const auto nested = [](std::size_t depth) {
    Bytes bytes = encoded(Value::list({1, depth, 0}));
    bytes[0] = std::byte{0x84};
    bytes.push_back(std::byte{0x81});
    bytes.push_back(std::byte{0xa1});  // {"a": [[...]]}
    for (const std::byte byte : encoded(Value("a"))) bytes.push_back(byte);
    for (std::size_t i = 1; i < depth; ++i)
      bytes.push_back(std::byte{i + 1 == depth ? std::uint8_t{0x80} : std::uint8_t{0x81}});
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
  EXPECT_EQ(buffer[5], 3);               // a reply
  EXPECT_EQ(buffer[4 + length + 5], 4);  // a failure
}

TEST_F(RawPeer, RequestIdsMustIncrease) {
  start();
  sendMessage(Value::list({1, 5, 2, Value::list({})}));
  sendMessage(Value::list({1, 5, 0, Value::list({nullptr})}));
  EXPECT_EQ(received(),
            std::vector{failure(5, FailureCode::badRequestId, "request ids must rise")});
  sendMessage(Value::list({1, 4, 0, Value::list({nullptr})}));
  EXPECT_EQ(received(),
            std::vector{failure(4, FailureCode::badRequestId, "request ids must rise")});
  sendMessage(Value::list({1, 6, 0, Value::list({nullptr})}));
  EXPECT_EQ(received().size(), 1u);
  EXPECT_EQ(service->kept.size(), 1u);
}

TEST_F(RawPeer, OversizedRequestIsSkippedAndAnswered) {
  start();
  const std::size_t size = limits::kFrameBytes + 1;
  Bytes bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(size >> (8 * i)));
  for (const std::byte byte : encoded(Value::list({1, 9, 0, Value::list({})})))
    bytes.push_back(byte);
  bytes.resize(4 + size);
  sendBytes(bytes);
  EXPECT_EQ(
      received(),
      std::vector{failure(9, FailureCode::tooLarge,
                          "a message of 16777217 bytes is too large; at most 16777216 are taken")});
  sendMessage(Value::list({1, 10, 0, Value::list({nullptr})}));
  EXPECT_EQ(received().size(), 1u);
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, DescriptorInASkippedFrameEndsTheConnectionBehindItsFailure) {
  start();
  Bytes bytes;
  for (int i = 0; i < 4; ++i) {
    bytes.push_back(static_cast<std::byte>((limits::kFrameBytes + 1) >> (8 * i)));
  }
  const Bytes beginning = encoded(Value::list({1, 5, 2, Value::list({std::string(100, 'x')})}));
  bytes.insert(bytes.end(), beginning.begin(), beginning.end());
  const std::string content = "\xa0";
  const auto file = sealedMemoryOf(std::as_bytes(std::span(content)));
  sendBytes(bytes);
  EXPECT_EQ(invalidations, 0);
  sendWithDescriptor(peer.get(), Bytes(10), file->get());
  const std::vector<Value> messages = received();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].as<Value::List>()->at(2), Value(static_cast<int>(FailureCode::tooLarge)));
  EXPECT_EQ(messages[1], Value::list({5, "descriptors that no message claims"}));
  EXPECT_EQ(invalidations, 1);
}

TEST_F(RawPeer, TheLargestFrameIsAccepted) {
  start();
  Bytes content = encoded(Value::list(
      {1, 9, 0, Value::list({Value::map({{"x", std::string(limits::kFrameBytes - 13, 'a')}})})}));
  ASSERT_EQ(content.size(), limits::kFrameBytes);
  sendBytes(framed(content));
  const std::vector<Value> answers = received();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].as<Value::List>()->at(0), Value(3));
}

TEST_F(RawPeer, AGarbageLengthEndsTheConnection) {
  start();
  sendBytes(Bytes(4, std::byte{0xff}));
  EXPECT_EQ(received(),
            std::vector{Value::list({5, "a frame of 4294967295 bytes is beyond all limits"})});
  EXPECT_TRUE(peerSeesTheEnd());
  EXPECT_EQ(invalidations, 1);
  EXPECT_EQ(logged.size(), 1u);
}

TEST_F(RawPeer, ABadHelloEndsTheConnectionWithAGoodbye) {
  const std::vector<std::pair<Value, const char*>> hellos = {
      {Value::list({1, 1, 0, Value::list({nullptr})}), "its first message is no hello"},
      {Value::list({0, 2, Value::list({}), Value::map({})}),
       "protocol version 2 is not known here; this side speaks 1"},
      {Value::list({0, 1, "selectors", Value::map({})}), "its hello cannot be decoded"},
      {Value::list({0, 1, Value::list({1}), Value::map({})}), "its hello cannot be decoded"},
      {Value::list({0, 1, Value::list({}), Value::map({{"descriptors", 1}})}),
       "its hello cannot be decoded"},
      {Value::list({0, 1, Value::list({})}), "its hello cannot be decoded"},
      {Value("hello"), "its hello cannot be decoded"},
  };
  for (const auto& [message, words] : hellos) {
    int both[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    peer.reset(both[1]);
    pending.clear();
    const auto other = Connection::create(
        PeerIdentity(),
        std::make_unique<FrameStream>(FileDescriptor(both[0]), context,
                                      FrameStream::Terms{.frameLimitBytes = limits::kFrameBytes}),
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
  sendMessage(Value::list({0, 1, Value::list({"future:"}),
                           Value::map({{"later", Value::list({1, 2})}, {"descriptors", false}})}));
  sendMessage(Value::list({1, 1, 0, Value::list({nullptr})}));
  EXPECT_EQ(received().size(), 2u);
}

TEST_F(RawPeer, HelloOverItsBoundEndsTheConnection) {
  connection->resume();
  // Its length is enough.
  const std::size_t size = limits::kHelloBytes + 1;
  Bytes bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(size >> (8 * i)));
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

TEST_F(RawPeer, AnUnclaimedDescriptorEndsTheConnection) {
  start();
  const std::string content = "bytes";
  const auto file = sealedMemoryOf(std::as_bytes(std::span(content)));
  sendWithDescriptor(peer.get(), framed(encoded(Value::list({1, 1, 0, Value::list({nullptr})}))),
                     file->get());
  const std::vector<Value> messages = received();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[1], Value::list({5, "descriptors that no message claims"}));
  EXPECT_EQ(invalidations, 1);
}

// A request whose only argument is in a file of that size.
Bytes requestWithFile(std::uint8_t id, std::uint8_t method, std::uint8_t sizeBytes) {
  Bytes bytes;
  for (const int byte :
       {0x84, 0x01, int{id}, 0x18, int{method}, 0x81, 0xd9, 0xca, 0x1e, int{sizeBytes}}) {
    // A method below 24 has a head of one byte.
    if (byte != 0x18 || method >= 24) bytes.push_back(static_cast<std::byte>(byte));
  }
  return framed(bytes);
}

TEST_F(RawPeer, ADescriptorOfARefusedMessageIsClosed) {
  start();
  const std::string content = "bytes";
  const auto file = sealedMemoryOf(std::as_bytes(std::span(content)));
  sendMessage(Value::list({1, 7, 0, Value::list({nullptr})}));
  sendWithDescriptor(peer.get(), requestWithFile(7, 0, 5), file->get());
  sendWithDescriptor(peer.get(), requestWithFile(8, 99, 5), file->get());
  sendMessage(Value::list({1, 9, 0, Value::list({nullptr})}));
  const std::vector<Value> messages = received();
  ASSERT_EQ(messages.size(), 4u);
  EXPECT_EQ(messages[1], failure(7, FailureCode::badRequestId, "request ids must rise"));
  EXPECT_EQ(messages[2], failure(8, FailureCode::unknownMethod, "there is no method 99"));
  EXPECT_EQ(invalidations, 0);
}

TEST_F(RawPeer, ADescriptorBehindAnotherMessageStaysWithItsOwn) {
  start();
  const std::string content = "\xa0";
  const auto file = sealedMemoryOf(std::as_bytes(std::span(content)));
  // The first is refused, the second keeps its file until it is served; each is read together with
  // the message behind it.
  std::uint8_t id = 1;
  for (const int method : {99, 3}) {
    const Bytes first = framed(encoded(Value::list({1, int{id++}, method, Value::list({})})));
    ASSERT_EQ(::send(peer.get(), first.data(), first.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(first.size()));
    sendWithDescriptor(peer.get(), requestWithFile(id, 0, 1), file->get());
    turns();
    if (!service->kept.empty()) service->kept.front()(nullptr);
    const std::vector<Value> messages = received();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1], Value::list({3, int{id++}, Value::list({Value::map({}), nullptr})}));
  }
}

TEST_F(RawPeer, ADescriptorOfAnotherKindEndsTheConnection) {
  start();
  sendWithDescriptor(peer.get(), framed(encoded(Value::list({2, 1, Value::list({"x"})}))),
                     peer.get());
  EXPECT_EQ(received(), std::vector{Value::list({5, "a descriptor that is not a memory file"})});
  EXPECT_EQ(invalidations, 1);
  EXPECT_TRUE(service->told.empty());
}

TEST_F(RawPeer, InterruptionHandlerMayEndTheConnection) {
  bool ran = false;
  connection->setInterruptionHandler([&, held = std::make_shared<int>(7)] {
    connection->invalidate();
    // The running handler keeps its captures.
    ran = *held == 7;
  });
  start();
  sendMessage(Value::list({9}));
  turns();
  EXPECT_TRUE(ran);
  EXPECT_EQ(invalidations, 1);
}

}  // namespace
}  // namespace keel::xpc
