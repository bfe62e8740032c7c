// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/wire.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <algorithm>
#include <cstring>

#include <algorithm>
#include <limits>
#include <string>

#include "runtime/foundation/sealed_memory.h"
#include "runtime/foundation/value.h"
#include "runtime/wire/argument.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {
namespace {

std::span<const std::byte> content(const OutgoingMessage& message) {
  return std::span(message.bytes()).subspan(kLengthBytes);
}

// Writes one argument and reads it back.
template <class T>
bool roundTrip(const T& value, T& result) {
  OutgoingMessage message;
  message.begin();
  ArgumentWriter writer{message, /*takesDescriptors=*/false};
  Argument<T>::write(writer, value);
  EXPECT_TRUE(message.finish());
  std::vector<std::byte> bytes(content(message).begin(), content(message).end());
  for (const auto& splice : message.splices()) {
    const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(splice.offset - kLengthBytes);
    bytes.insert(at, splice.buffer->bytes().begin(), splice.buffer->bytes().end());
  }
  std::vector<FileDescriptor> files;
  ArgumentReader reader(bytes, files, limits::kFrameBytes);
  return Argument<T>::read(reader, result) && reader.cursor.atEnd();
}

template <class T>
void expectRoundTrip(const T& value) {
  T result{};
  EXPECT_TRUE(roundTrip(value, result));
  EXPECT_TRUE(result == value);
}

TEST(OutgoingMessage, SeveralFramesTravelTogether) {
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
  // Anew.
  message.begin().unsignedInteger(7);
  EXPECT_TRUE(message.finish());
  EXPECT_EQ(message.wireBytes(), 5u);
  EXPECT_EQ(message.bytes()[0], std::byte{1});
}

TEST(Argument, EveryTypeTravels) {
  expectRoundTrip(true);
  expectRoundTrip<std::int64_t>(std::numeric_limits<std::int64_t>::min());
  expectRoundTrip<std::int32_t>(-1);
  expectRoundTrip<std::uint64_t>(std::numeric_limits<std::uint64_t>::max());
  expectRoundTrip(String("text"));
  expectRoundTrip(String(""));
  expectRoundTrip(String(nullptr));
  expectRoundTrip(Data(std::as_bytes(std::span("bytes"))));
  expectRoundTrip(Data());
  expectRoundTrip(Dictionary(Value::map({{"a", 1}, {"b", Value::list({1.5, nullptr})}})));
  expectRoundTrip(Dictionary(Value::map({{"large", std::string(100'000, 'x')}})));
  expectRoundTrip(Dictionary());
  expectRoundTrip(Array(Value::list({1, "two"})));
  expectRoundTrip(Array());
  expectRoundTrip(Error("KLNErrorDomain", 9, Dictionary(Value::map({{"k", "v"}}))));
  expectRoundTrip(Error());
}

TEST(Argument, NullAndEmptyTextsDiffer) {
  String result;
  ASSERT_TRUE(roundTrip(String(""), result));
  EXPECT_FALSE(result.isNull());
  ASSERT_TRUE(roundTrip(String(), result));
  EXPECT_TRUE(result.isNull());
}

template <class T>
bool reads(void (*write)(cbor::Writer&)) {
  ByteSink bytes;
  cbor::Writer writer(bytes);
  write(writer);
  std::vector<FileDescriptor> files;
  ArgumentReader reader(bytes, files, limits::kFrameBytes);
  T value{};
  return Argument<T>::read(reader, value);
}

TEST(Argument, Int32TakesItsRangeAndNoMore) {
  EXPECT_TRUE(reads<std::int32_t>([](cbor::Writer& writer) { writer.integer(2147483647); }));
  EXPECT_FALSE(reads<std::int32_t>([](cbor::Writer& writer) { writer.integer(2147483648); }));
  EXPECT_TRUE(reads<std::int32_t>([](cbor::Writer& writer) { writer.integer(-2147483648); }));
  EXPECT_FALSE(reads<std::int32_t>([](cbor::Writer& writer) { writer.integer(-2147483649); }));
}

TEST(Argument, OtherKindsAreRefused) {
  EXPECT_FALSE(reads<bool>([](cbor::Writer& writer) { writer.integer(1); }));
  EXPECT_FALSE(reads<bool>([](cbor::Writer& writer) { writer.null(); }));
  EXPECT_FALSE(reads<std::uint64_t>([](cbor::Writer& writer) { writer.integer(-1); }));
  EXPECT_FALSE(reads<String>([](cbor::Writer& writer) { writer.integer(1); }));
  EXPECT_FALSE(reads<Dictionary>([](cbor::Writer& writer) { writer.array(0); }));
  EXPECT_FALSE(reads<Array>([](cbor::Writer& writer) { writer.map(0); }));
  EXPECT_FALSE(reads<Data>([](cbor::Writer& writer) { writer.text("x"); }));
  EXPECT_FALSE(reads<Error>([](cbor::Writer& writer) { writer.date(Date{1}); }));
}

TEST(Argument, SealedMemoryIsReadWhereItIs) {
  const Dictionary large(Value::map({{"large", std::string(200'000, 'x')}}));
  OutgoingMessage message;
  message.begin();
  ArgumentWriter writer{message, /*takesDescriptors=*/true};
  Argument<Dictionary>::write(writer, large);
  ASSERT_TRUE(message.finish());
  ASSERT_EQ(message.files().size(), 1u);
  EXPECT_LT(message.wireBytes(), 20u);
  std::vector<FileDescriptor> files;
  files.emplace_back(::dup(message.files()[0]->sealedFile()));
  ArgumentReader reader(content(message), files, limits::kFrameBytes);
  Dictionary result;
  ASSERT_TRUE(Argument<Dictionary>::read(reader, result));
  EXPECT_TRUE(result == large);
  EXPECT_GE(result.buffer()->sealedFile(), 0);
  EXPECT_TRUE(files.empty());
}

TEST(Argument, SealedMemoryWithoutItsFileOrOverTheLimitIsRefused) {
  const Dictionary large(Value::map({{"large", std::string(200'000, 'x')}}));
  OutgoingMessage message;
  message.begin();
  ArgumentWriter writer{message, /*takesDescriptors=*/true};
  Argument<Dictionary>::write(writer, large);
  ASSERT_TRUE(message.finish());
  Dictionary result;
  std::vector<FileDescriptor> files;
  ArgumentReader without(content(message), files, limits::kFrameBytes);
  EXPECT_FALSE(Argument<Dictionary>::read(without, result));
  const std::size_t size = large.encoded().size();
  files.emplace_back(::dup(message.files()[0]->sealedFile()));
  ArgumentReader above(content(message), files, size - 1);
  EXPECT_FALSE(Argument<Dictionary>::read(above, result));
  ArgumentReader atLimit(content(message), files, size);
  EXPECT_TRUE(Argument<Dictionary>::read(atLimit, result));
}

TEST(Argument, SealedMemoryWithBadContentsIsRefused) {
  const std::string garbage(100'000, '\xff');
  auto file = sealedMemoryOf(std::as_bytes(std::span(garbage)));
  ASSERT_TRUE(file);
  ByteSink bytes;
  cbor::Writer writer(bytes);
  writer.tag(kSealedMemoryTag);
  writer.unsignedInteger(garbage.size());
  std::vector<FileDescriptor> files;
  files.push_back(std::move(*file));
  ArgumentReader reader(bytes, files, limits::kFrameBytes);
  Dictionary result;
  EXPECT_FALSE(Argument<Dictionary>::read(reader, result));
}

TEST(Envelope, RequestShowsItsIdAndOthersTheirKind) {
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

// The bytes of a message: its kind, one or two numbers, and what its arguments are.
std::vector<std::byte> bytesOf(std::initializer_list<int> numbers) {
  std::vector<std::byte> bytes;
  for (const int number : numbers) bytes.push_back(static_cast<std::byte>(number));
  return bytes;
}

TEST(SealedArguments, AreCountedUpToTheFirstThatCannotBeRead) {
  // A request, a one-way message and a reply.
  EXPECT_EQ(countSealedArguments(bytesOf({0x84, 1, 5, 3, 0x82, 0xd9, 0xca, 0x1e, 9, 0xa0})), 1u);
  EXPECT_EQ(
      countSealedArguments(bytesOf({0x83, 2, 3, 0x82, 0xd9, 0xca, 0x1e, 9, 0xd9, 0xca, 0x1e, 9})),
      2u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x83, 3, 5, 0x82, 0x80, 0xd9, 0xca, 0x1e, 9})), 1u);
  // Behind what breaks a rule, and within a value.
  EXPECT_EQ(countSealedArguments(
                bytesOf({0x83, 2, 3, 0x83, 0xd9, 0xca, 0x1e, 9, 0xff, 0xd9, 0xca, 0x1e, 9})),
            1u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x83, 2, 3, 0x81, 0x81, 0xd9, 0xca, 0x1e, 9})), 0u);
  // No message, and those without arguments.
  EXPECT_EQ(countSealedArguments({}), 0u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x84, 0, 1, 0x81, 0xd9, 0xca, 0x1e, 9, 0xa0})), 0u);
  EXPECT_EQ(countSealedArguments(bytesOf({0x84, 1, 5, 0x20, 0x81, 0xd9, 0xca, 0x1e, 9})), 0u);
}

TEST(Arguments, AreWellFormedAsALotOrNotAtAll) {
  EXPECT_TRUE(areWellFormedArguments({}, 0));
  EXPECT_TRUE(areWellFormedArguments(bytesOf({0xa0, 0xd9, 0xca, 0x1e, 9, 0x60}), 3));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0xa0, 0x60}), 1));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0xa0, 0x60}), 3));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0x18, 1}), 1));
  EXPECT_FALSE(areWellFormedArguments(bytesOf({0xd9, 0xca, 0x1e, 0x60}), 1));
}

TEST(Arguments, OfTheLargestDepthAreWellFormedAndOneMoreIsNot) {
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

TEST(Message, FramesWithLargeValuesHaveTheirOwnLengths) {
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

TEST(Message, SharingMovesLargeMessagesIntoABuffer) {
  for (const std::size_t size :
       {limits::kSharedMessageBytes - kLengthBytes - 4, limits::kSharedMessageBytes}) {
    OutgoingMessage message;
    message.begin().text(std::string(size, 'x'));
    ASSERT_TRUE(message.finish());
    const std::size_t wireBytes = message.wireBytes();
    message.share();
    EXPECT_EQ(message.wireBytes(), wireBytes);
    const bool isShared = wireBytes >= limits::kSharedMessageBytes;
    EXPECT_EQ(message.bytes().empty(), isShared);
    EXPECT_EQ(message.splices().size(), isShared ? 1u : 0u);
  }
}

}  // namespace
}  // namespace keel::xpc
