// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/sealed_value.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/foundation/cbor.h"
#include "runtime/foundation/sealed_memory.h"
#include "runtime/foundation/value.h"
#include "runtime/wire/argument.h"
#include "runtime/wire/limits.h"
#include "runtime/wire/message.h"

namespace keel::xpc {
namespace {

using State = SealedValue::State;
using Bytes = std::vector<std::byte>;

Value largeMap() {
  return Value::map({{"large", std::string(100'000, 'x')}});
}

SealedValue fileOf(std::span<const std::byte> content) {
  return SealedValue(std::move(*sealedMemoryOf(content)));
}

CheckedMessage check(const Bytes& frame, SealedValues values = {},
                     const MemoryQuota& quota = MemoryQuota::ofProcess()) {
  return checkMessage(frame, std::move(values), limits::kFrameBytes, quota);
}

// Reads the arguments of a request (a dictionary, a text and a dictionary) as a service does.
bool readsBack(CheckedMessage& message, Dictionary& first, String& name, Dictionary& second) {
  cbor::Cursor cursor(message.frame);
  EXPECT_EQ(skipToArguments(cursor), 3u);
  ArgumentReader reader(cursor.rest(), message.values, limits::kFrameBytes);
  return Argument<Dictionary>::read(reader, first) && Argument<String>::read(reader, name) &&
         Argument<Dictionary>::read(reader, second) && reader.cursor.atEnd();
}

TEST(CheckMessage, LargeArgumentsAreReplacedByTheirValues) {
  const Value small = Value::map({{"small", 1}});
  CheckedMessage checked =
      check(cbor::encode(Value::list({1, 7, 0, Value::list({largeMap(), "name", small})})));
  EXPECT_LT(checked.frame.size(), 50u);
  ASSERT_EQ(checked.values.size(), 1u);
  EXPECT_EQ(checked.values[0].state, State::accepted);
  Dictionary first, second;
  String name;
  ASSERT_TRUE(readsBack(checked, first, name, second));
  EXPECT_TRUE(first == Dictionary(largeMap()));
  EXPECT_EQ(name.view(), "name");
  EXPECT_TRUE(second == Dictionary(small));
}

TEST(CheckMessage, InlineAndSealedValuesKeepTheirOrder) {
  const Bytes content = cbor::encode(Value::map({{"sealed", 2}}));
  ByteSink bytes;
  cbor::Writer writer(bytes);
  writer.array(4);
  for (const std::uint64_t each : {1u, 7u, 0u}) writer.unsignedInteger(each);
  writer.array(3);
  writer.encoded(cbor::encode(largeMap()));
  writer.text("name");
  writer.tag(kSealedMemoryTag);
  writer.unsignedInteger(content.size());
  SealedValues files;
  files.push_back(fileOf(content));
  files.push_back(fileOf(content));
  CheckedMessage checked =
      check(Bytes(bytes.bytes().begin(), bytes.bytes().end()), std::move(files));
  EXPECT_EQ(checked.unclaimed.size(), 1u);
  Dictionary first, second;
  String name;
  ASSERT_TRUE(readsBack(checked, first, name, second));
  EXPECT_TRUE(first == Dictionary(largeMap()));
  EXPECT_TRUE(second == Dictionary(Value::map({{"sealed", 2}})));
}

TEST(CheckMessage, MalformedArgumentsStayMalformedAndShort) {
  Bytes frame = cbor::encode(Value::list({1, 7, 0, Value::list({largeMap(), "name", largeMap()})}));
  frame.back() = std::byte{0xff};
  CheckedMessage checked = check(frame);
  EXPECT_LT(checked.frame.size(), 50u);
  cbor::Cursor cursor(checked.frame);
  ASSERT_TRUE(skipToArguments(cursor));
  EXPECT_FALSE(areWellFormedArguments(cursor.rest(), 3));
}

TEST(CheckMessage, BytesBehindTheArgumentsStay) {
  Bytes frame = cbor::encode(Value::list({1, 7, 0, Value::list({largeMap(), "name", largeMap()})}));
  frame.resize(frame.size() + 100'000);
  CheckedMessage checked = check(frame);
  EXPECT_LT(checked.frame.size(), 50u);
  cbor::Cursor cursor(checked.frame);
  ASSERT_TRUE(skipToArguments(cursor));
  EXPECT_FALSE(areWellFormedArguments(cursor.rest(), 3));
}

TEST(CheckMessage, AMessageWithoutArgumentsIsUnchangedAndClaimsNoFile) {
  const Bytes frame = cbor::encode(Value::list({5, std::string(100'000, 'x')}));
  SealedValues files;
  files.push_back(fileOf(cbor::encode(Value::map({}))));
  CheckedMessage checked = check(frame, std::move(files));
  EXPECT_EQ(checked.frame, frame);
  EXPECT_EQ(checked.unclaimed.size(), 1u);
}

TEST(CheckMessage, ValuesBeyondTheQuotaAreNotKept) {
  MemoryAccount account;
  const MemoryQuota quota{.account = &account, .limitBytes = 50'000};
  CheckedMessage checked =
      check(cbor::encode(Value::list({1, 7, 0, Value::list({largeMap(), "name", largeMap()})})), {},
            quota);
  ASSERT_EQ(checked.values.size(), 2u);
  EXPECT_EQ(checked.values[0].state, State::overQuota);
  EXPECT_EQ(account.bytes(), 0u);
}

TEST(SealedValue, AcceptsWellFormedArraysAndMapsOnly) {
  const auto stateOf = [](const Bytes& content) {
    SealedValue value = fileOf(content);
    value.check(content.size(), MemoryQuota::ofProcess());
    return value.state;
  };
  EXPECT_EQ(stateOf(cbor::encode(largeMap())), State::accepted);
  EXPECT_EQ(stateOf(cbor::encode(Value::list({1}))), State::accepted);
  EXPECT_EQ(stateOf(cbor::encode(Value("text"))), State::refused);
  EXPECT_EQ(stateOf(Bytes(100, std::byte{0xff})), State::refused);
}

}  // namespace
}  // namespace keel::xpc
