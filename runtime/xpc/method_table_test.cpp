// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/method_table.h"

#include <gtest/gtest.h>

#include "runtime/xpc/interface.h"

namespace keel::xpc {

class Sample {
 public:
  virtual ~Sample() = default;
  virtual void tell(String what, std::int64_t andNumber) = 0;
  virtual void ask(String what, Reply<String, Error> withHandler) = 0;
  virtual void probe(Reply<bool> handler) = 0;
};
using SampleMethods =
    MethodTable<Method<"tell:andNumber:", &Sample::tell>, Method<"ask:withHandler:", &Sample::ask>,
                Method<"probe:", &Sample::probe>>;
SampleMethods methodTableOf(const Sample*);

namespace {

using Tell = SampleMethods::MethodOf<&Sample::tell>;
using Ask = SampleMethods::MethodOf<&Sample::ask>;
using Probe = SampleMethods::MethodOf<&Sample::probe>;
static_assert(!Tell::kHasReply && Ask::kHasReply && Probe::kHasReply);
static_assert(std::is_same_v<Tell::Sent, std::tuple<String, std::int64_t>>);
static_assert(std::is_same_v<Ask::Sent, std::tuple<String>>);
static_assert(std::is_same_v<Probe::Sent, std::tuple<>>);
static_assert(std::is_same_v<Ask::ReplyBlock, Reply<String, Error>>);
static_assert(SampleMethods::indexOf<&Sample::probe>() == 2);

TEST(MethodTable, InterfaceListsSelectorsInOrder) {
  const Interface& interface = Interface::interfaceWithProtocol<Sample>();
  ASSERT_EQ(interface.selectors().size(), 3u);
  EXPECT_EQ(interface.selectors()[0], "tell:andNumber:");
  EXPECT_EQ(interface.selectors()[2], "probe:");
  EXPECT_NE(interface.dispatchAt(2), nullptr);
  EXPECT_EQ(interface.dispatchAt(3), nullptr);
}

struct RecordingSample : Sample {
  void tell(String what, std::int64_t andNumber) override {
    told = std::string(what.view()) + " " + std::to_string(andNumber);
  }
  void ask(String, Reply<String, Error> withHandler) override { withHandler("answer", nullptr); }
  void probe(Reply<bool>) override {}
  std::string told;
};

bool dispatchTell(RecordingSample& object, std::uint64_t count, void (*write)(cbor::Writer&)) {
  ByteSink bytes;
  cbor::Writer writer(bytes);
  write(writer);
  std::vector<FileDescriptor> files;
  ArgumentReader reader(bytes, files, 1000);
  Interface::Call call{nullptr, 0};
  return Interface::interfaceWithProtocol<Sample>().dispatchAt(0)(static_cast<Sample*>(&object),
                                                                  reader, count, call);
}

TEST(MethodTable, DispatchDecodesAndCalls) {
  RecordingSample object;
  EXPECT_TRUE(dispatchTell(object, 2, [](cbor::Writer& writer) {
    writer.text("x");
    writer.integer(-5);
  }));
  EXPECT_EQ(object.told, "x -5");
}

TEST(MethodTable, WrongArgumentsAreNotPassedOn) {
  RecordingSample object;
  EXPECT_FALSE(dispatchTell(object, 1, [](cbor::Writer& writer) { writer.text("x"); }));
  EXPECT_FALSE(dispatchTell(object, 2, [](cbor::Writer& writer) {
    writer.integer(1);
    writer.integer(1);
  }));
  EXPECT_FALSE(dispatchTell(object, 2, [](cbor::Writer& writer) {
    writer.text("x");
    writer.integer(1);
    writer.integer(1);
  }));
  EXPECT_FALSE(dispatchTell(object, 2, [](cbor::Writer& writer) { writer.text("x"); }));
  EXPECT_EQ(object.told, "");
}

TEST(Reply, LocalBlockIsCalledWithTheResults) {
  std::string seen;
  auto reply = Reply<String, Error>::to(
      [&](String text, Error error) { seen = std::string(text.view()) + (error ? "!" : "."); });
  reply("yes", nullptr);
  EXPECT_EQ(seen, "yes.");
}

struct RecordingRoute : ReplyRoute {
  void sendReply(std::uint64_t requestId, std::size_t resultCount, WriteResults, void*) override {
    events.push_back("reply " + std::to_string(requestId) + " of " + std::to_string(resultCount));
  }
  void sendFailure(std::uint64_t requestId, FailureCode code, std::string_view) override {
    events.push_back("failure " + std::to_string(requestId) + " code " +
                     std::to_string(static_cast<int>(code)));
  }
  std::vector<std::string> events;
};

TEST(Reply, DroppedUnansweredAnswersAFailureOnce) {
  const auto route = std::make_shared<RecordingRoute>();
  {
    Reply<Error> reply(route, 7);
    Reply<Error> moved = std::move(reply);
  }
  EXPECT_EQ(route->events, std::vector<std::string>{"failure 7 code 6"});
}

TEST(Reply, AnsweredIsNotAnsweredAgainWhenDropped) {
  const auto route = std::make_shared<RecordingRoute>();
  {
    Reply<String, Error>(route, 8)("x", nullptr);
  }
  EXPECT_EQ(route->events, std::vector<std::string>{"reply 8 of 2"});
}

}  // namespace
}  // namespace keel::xpc
