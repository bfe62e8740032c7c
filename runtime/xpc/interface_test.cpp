// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/interface.h"

#include <gtest/gtest.h>

#include <string>

namespace keel::xpc {

class Sample {
 public:
  virtual ~Sample() = default;
  virtual void record(String what, std::int64_t andNumber) = 0;
  virtual void ask(String what, Reply<String, Error> withHandler) = 0;
  virtual void probe(Reply<bool> handler) = 0;
};
using SampleMethods =
    MethodTable<Method<"record:andNumber:", &Sample::record>,
                Method<"ask:withHandler:", &Sample::ask>, Method<"probe:", &Sample::probe>>;
SampleMethods methodTableOf(const Sample*);

namespace {

using Record = SampleMethods::MethodOf<&Sample::record>;
using Ask = SampleMethods::MethodOf<&Sample::ask>;
using Probe = SampleMethods::MethodOf<&Sample::probe>;
static_assert(!Record::kHasReply && Ask::kHasReply && Probe::kHasReply);
static_assert(std::is_same_v<Record::Sent, std::tuple<String, std::int64_t>>);
static_assert(std::is_same_v<Ask::Sent, std::tuple<String>>);
static_assert(std::is_same_v<Probe::Sent, std::tuple<>>);
static_assert(std::is_same_v<Ask::ReplyBlock, Reply<String, Error>>);
static_assert(SampleMethods::indexOf<&Sample::probe>() == 2);

TEST(Interface, ListsSelectorsInOrder) {
  const Interface& interface = Interface::interfaceWithProtocol<Sample>();
  ASSERT_EQ(interface.selectors().size(), 3u);
  EXPECT_EQ(interface.selectors()[0], "record:andNumber:");
  EXPECT_EQ(interface.selectors()[2], "probe:");
  EXPECT_NE(interface.dispatchAt(2), nullptr);
  EXPECT_EQ(interface.dispatchAt(3), nullptr);
}

struct RecordingSample : Sample {
  void record(String what, std::int64_t andNumber) override {
    recorded = std::string(what.view()) + " " + std::to_string(andNumber);
  }
  void ask(String, Reply<String, Error> withHandler) override { withHandler("answer", nullptr); }
  void probe(Reply<bool>) override {}
  std::string recorded;
};

bool dispatchRecord(RecordingSample& object, std::uint64_t count, void (*write)(cbor::Writer&)) {
  ByteSink bytes;
  cbor::Writer writer(bytes);
  write(writer);
  SealedValues files;
  ArgumentReader reader(bytes, files, 1000);
  Interface::Call call{nullptr, 0};
  return Interface::interfaceWithProtocol<Sample>().dispatchAt(0)(static_cast<Sample*>(&object),
                                                                  reader, count, call);
}

TEST(InterfaceDispatch, DecodesAndCalls) {
  RecordingSample object;
  EXPECT_TRUE(dispatchRecord(object, 2, [](cbor::Writer& writer) {
    writer.text("x");
    writer.integer(-5);
  }));
  EXPECT_EQ(object.recorded, "x -5");
}

TEST(InterfaceDispatch, WrongArgumentsAreRefused) {
  RecordingSample object;
  EXPECT_FALSE(dispatchRecord(object, 1, [](cbor::Writer& writer) { writer.text("x"); }));
  EXPECT_FALSE(dispatchRecord(object, 2, [](cbor::Writer& writer) {
    writer.integer(1);
    writer.integer(1);
  }));
  EXPECT_FALSE(dispatchRecord(object, 2, [](cbor::Writer& writer) {
    writer.text("x");
    writer.integer(1);
    writer.integer(1);
  }));
  EXPECT_FALSE(dispatchRecord(object, 2, [](cbor::Writer& writer) { writer.text("x"); }));
  EXPECT_EQ(object.recorded, "");
}

}  // namespace
}  // namespace keel::xpc
