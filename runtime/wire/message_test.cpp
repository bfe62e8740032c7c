// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/message.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "runtime/foundation/value.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {
namespace {

std::span<const std::byte> content(const OutgoingMessage& message) {
  return std::span(message.bytes()).subspan(kLengthBytes);
}

TEST(OutgoingMessage, HoldsSeveralFrames) {
  OutgoingMessage message;
  message.begin().unsignedInteger(1);
  EXPECT_TRUE(message.finish());
  message.beginNext().text("second");
  EXPECT_TRUE(message.finish());
  message.beginNext();
  message.item(Dictionary(Value::map({{"n", 3}})).buffer());
  EXPECT_TRUE(message.finish());
  const std::vector<std::uint8_t> expected = {1, 0, 0, 0, 1,                                    //
                                              7, 0, 0, 0, 0x66, 's',  'e', 'c', 'o', 'n', 'd',  //
                                              4, 0, 0, 0, 0xa1, 0x61, 'n', 3};
  const std::span<const std::byte> bytes = message.bytes();
  EXPECT_TRUE(std::ranges::equal(bytes, std::as_bytes(std::span(expected))));
  EXPECT_EQ(message.wireBytes(), expected.size());
  // begin() starts over.
  message.begin().unsignedInteger(7);
  EXPECT_TRUE(message.finish());
  EXPECT_EQ(message.wireBytes(), 5u);
  EXPECT_EQ(message.bytes()[0], std::byte{1});
}

TEST(PeekEnvelope, ReturnsTheKindAndTheIdOfARequest) {
  OutgoingMessage failure;
  writeFailure(failure, 5, FailureCode::tooLarge, "x");
  ASSERT_TRUE(peekEnvelope(content(failure)));
  EXPECT_EQ(peekEnvelope(content(failure))->kind, MessageKind::failure);
  EXPECT_FALSE(peekEnvelope(content(failure))->requestId);

  ByteSink request;
  cbor::Writer writer(request);
  writer.array(4);
  writer.unsignedInteger(1);
  writer.unsignedInteger(std::uint64_t{1} << 40);
  ASSERT_TRUE(peekEnvelope(request));
  EXPECT_EQ(peekEnvelope(request)->requestId, std::uint64_t{1} << 40);
  EXPECT_FALSE(peekEnvelope({}));
}

// Returns these numbers as bytes.
std::vector<std::byte> bytesOf(std::initializer_list<int> numbers) {
  std::vector<std::byte> bytes;
  for (const int number : numbers) bytes.push_back(static_cast<std::byte>(number));
  return bytes;
}

TEST(CountSealedArguments, StopsAtTheFirstUnreadableArgument) {
  // A request, a one-way message and a reply.
  EXPECT_EQ(countSealedArguments(bytesOf({0x84, 1, 5, 3, 0x82, 0xd9, 0xca, 0x1e, 9, 0xa0})), 1u);
  EXPECT_EQ(
      countSealedArguments(bytesOf({0x83, 2, 3, 0x82, 0xd9, 0xca, 0x1e, 9, 0xd9, 0xca, 0x1e, 9})),
      2u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x83, 3, 5, 0x82, 0x80, 0xd9, 0xca, 0x1e, 9})), 1u);
  // Behind a violation, and within a value.
  EXPECT_EQ(countSealedArguments(
                bytesOf({0x83, 2, 3, 0x83, 0xd9, 0xca, 0x1e, 9, 0xff, 0xd9, 0xca, 0x1e, 9})),
            1u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x83, 2, 3, 0x81, 0x81, 0xd9, 0xca, 0x1e, 9})), 0u);
  // Not a message, and kinds without arguments.
  EXPECT_EQ(countSealedArguments({}), 0u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x84, 0, 1, 0x81, 0xd9, 0xca, 0x1e, 9, 0xa0})), 0u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x84, 1, 5, 0x20, 0x81, 0xd9, 0xca, 0x1e, 9})), 0u);
}

TEST(AreWellFormedArguments, RequiresExactlyThatManyValidArguments) {
  EXPECT_TRUE(areWellFormedArguments({}, 0));
  EXPECT_TRUE(areWellFormedArguments(bytesOf({0xa0, 0xd9, 0xca, 0x1e, 9, 0x60}), 3));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0xa0, 0x60}), 1));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0xa0, 0x60}), 3));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0x18, 1}), 1));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0xd9, 0xca, 0x1e, 0x60}), 1));
}

TEST(AreWellFormedArguments, AcceptsTheLargestDepthAndNoMore) {
  const auto nested = [](std::size_t depth, int outermost) {
    auto bytes = outermost == 0xa1 ? bytesOf({0xa1, 0x60}) : bytesOf({outermost});
    bytes.resize(bytes.size() + depth - 2, std::byte{0x81});
    bytes.push_back(std::byte{0x80});
    return bytes;
  };
  EXPECT_TRUE(areWellFormedArguments(nested(limits::kDepth, 0xa1), 1));
  EXPECT_FALSE(areWellFormedArguments(nested(limits::kDepth + 1, 0xa1), 1));
  EXPECT_TRUE(areWellFormedArguments(nested(limits::kDepth + limits::kArrayWrapping, 0x81), 1));
  EXPECT_FALSE(
      areWellFormedArguments(nested(limits::kDepth + limits::kArrayWrapping + 1, 0x81), 1));
}

TEST(OutgoingMessage, LengthsIncludeSplicedValues) {
  const BufferRef large =
      Buffer::make(5000, [](std::byte* bytes) { std::fill_n(bytes, 5000, std::byte{0x61}); });
  OutgoingMessage message;
  message.clear();
  std::string expected;
  for (int i = 0; i < 2; ++i) {
    message.beginNext().unsignedInteger(static_cast<std::uint64_t>(i));
    message.item(large);
    ASSERT_TRUE(message.finish());
  }
  ASSERT_EQ(message.splices().size(), 2u);
  EXPECT_EQ(message.wireBytes(), 2 * (kLengthBytes + 1 + 5000));
  for (const std::size_t begin : {std::size_t{0}, kLengthBytes + 1}) {
    std::uint32_t length = 0;
    std::memcpy(&length, message.bytes().data() + begin, sizeof(length));
    EXPECT_EQ(length, 5001u);
  }
}

TEST(OutgoingMessage, ShareMovesItsBytesIntoABuffer) {
  for (const std::size_t size : {0u, 100u, 100'000u}) {
    OutgoingMessage message;
    message.begin().text(std::string(size, 'x'));
    ASSERT_TRUE(message.finish());
    const std::size_t wireBytes = message.wireBytes();
    message.share();
    EXPECT_EQ(message.wireBytes(), wireBytes);
    EXPECT_TRUE(message.bytes().empty());
    EXPECT_EQ(message.splices().size(), 1u);
    message.share();
    EXPECT_EQ(message.splices().size(), 1u);
  }
}

}  // namespace
}  // namespace keel::xpc
