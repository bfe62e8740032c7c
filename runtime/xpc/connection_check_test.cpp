// SPDX-License-Identifier: Apache-2.0
//
// Large messages are checked on another thread; here, when the test runs that thread's executor.
#include "runtime/xpc/connection_fixture.h"

namespace keel::xpc {
namespace {

class CheckedElsewhere : public RawPeer {
 protected:
  CheckedElsewhere()
      : RawPeer([this] {
          Connection::Options options;
          options.checks = SerialQueue::create("checks", executor);
          return options;
        }()) {}

  static Value request(int id, std::size_t bytes) {
    return Value::list({1, id, 0, Value::list({Value::map({{"text", std::string(bytes, 'x')}})})});
  }
  static std::vector<int> idsOf(const std::vector<Value>& answers) {
    std::vector<int> ids;
    for (const Value& each : answers)
      ids.push_back(static_cast<int>(*each.as<Value::List>()->at(1).as<std::int64_t>()));
    return ids;
  }
  void check() {
    executor.runAll();
    turns();
  }
};

TEST_F(CheckedElsewhere, SmallMessagesAreServedAtOnce) {
  start();
  sendMessage(request(1, 100));
  EXPECT_EQ(received().size(), 1u);
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(CheckedElsewhere, MessagesOfAnySizeAreServedOnBehalfOfThePeersUser) {
  start();
  sendMessage(request(1, 100));
  EXPECT_EQ(std::exchange(service->user, std::nullopt), 501);
  sendMessage(request(2, limits::kCheckedInPlaceBytes));
  check();
  EXPECT_EQ(service->user, 501);
  EXPECT_EQ(currentUser(), std::nullopt);
}

TEST_F(CheckedElsewhere, MessagesBehindALargeOneWaitForIt) {
  start();
  Bytes bytes = framed(encoded(request(1, limits::kCheckedInPlaceBytes)));
  for (const int id : {2, 3}) {
    const Bytes next = framed(encoded(request(id, 100)));
    bytes.insert(bytes.end(), next.begin(), next.end());
  }
  sendBytes(bytes);
  EXPECT_TRUE(received().empty());
  check();
  EXPECT_EQ(idsOf(received()), (std::vector<int>{1, 2, 3}));
}

TEST_F(CheckedElsewhere, TwoLargeMessagesInARowAreServedInOrder) {
  start();
  Bytes bytes = framed(encoded(request(1, limits::kCheckedInPlaceBytes)));
  const Bytes next = framed(encoded(request(2, limits::kCheckedInPlaceBytes)));
  bytes.insert(bytes.end(), next.begin(), next.end());
  sendBytes(bytes);
  EXPECT_EQ(executor.scheduledCount(), 1u);
  check();
  check();
  EXPECT_EQ(idsOf(received()), (std::vector<int>{1, 2}));
}

TEST_F(CheckedElsewhere, AMalformedLargeMessageIsAnsweredWithItsFailure) {
  start();
  Bytes content = encoded(request(1, limits::kCheckedInPlaceBytes));
  content.back() = std::byte{0xff};
  sendBytes(framed(content));
  check();
  const std::vector<Value> answers = received();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0], failure(1, FailureCode::undecodable, "the message cannot be decoded"));
}

TEST_F(CheckedElsewhere, AMemoryFileIsCheckedThereToo) {
  start(Value::list({}), /*descriptors=*/true);
  const Bytes content = encoded(Value::map({{"text", "sealed"}}));
  const auto file = sealedMemoryOf(content);
  ByteSink bytes;
  cbor::Writer writer(bytes);
  writer.array(4);
  for (const std::uint64_t each : {1u, 1u, 0u}) writer.unsignedInteger(each);
  writer.array(1);
  writer.tag(kSealedMemoryTag);
  writer.unsignedInteger(content.size());
  sendWithDescriptor(peer.get(), framed(Bytes(bytes.bytes().begin(), bytes.bytes().end())),
                     file->get());
  EXPECT_TRUE(received().empty());
  check();
  EXPECT_EQ(received().size(), 1u);
}

TEST_F(CheckedElsewhere, AConnectionThatEndsMeanwhileServesNothing) {
  start();
  sendMessage(request(1, limits::kCheckedInPlaceBytes));
  turns();
  connection->invalidate();
  check();
  EXPECT_EQ(invalidations, 1);
}

}  // namespace
}  // namespace keel::xpc
