// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/argument.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <string>

#include "runtime/foundation/sealed_memory.h"
#include "runtime/foundation/value.h"
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
  SealedValues files;
  ArgumentReader reader(bytes, files, limits::kFrameBytes);
  return Argument<T>::read(reader, result) && reader.cursor.atEnd();
}

template <class T>
void expectRoundTrip(const T& value) {
  T result{};
  EXPECT_TRUE(roundTrip(value, result));
  EXPECT_TRUE(result == value);
}

TEST(Argument, EveryTypeRoundTrips) {
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
  SealedValues files;
  ArgumentReader reader(bytes, files, limits::kFrameBytes);
  T value{};
  return Argument<T>::read(reader, value);
}

TEST(Argument, Int32AcceptsItsRangeAndNoMore) {
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

TEST(Argument, SealedMemoryIsMappedAndNotCopied) {
  const Dictionary large(Value::map({{"large", std::string(200'000, 'x')}}));
  OutgoingMessage message;
  message.begin();
  ArgumentWriter writer{message, /*takesDescriptors=*/true};
  Argument<Dictionary>::write(writer, large);
  ASSERT_TRUE(message.finish());
  ASSERT_EQ(message.files().size(), 1u);
  EXPECT_LT(message.wireBytes(), 20u);
  SealedValues files;
  files.emplace_back(FileDescriptor(::dup(message.files()[0]->sealedFile())));
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
  SealedValues files;
  ArgumentReader without(content(message), files, limits::kFrameBytes);
  EXPECT_FALSE(Argument<Dictionary>::read(without, result));
  const std::size_t size = large.encoded().size();
  files.emplace_back(FileDescriptor(::dup(message.files()[0]->sealedFile())));
  ArgumentReader above(content(message), files, size - 1);
  EXPECT_FALSE(Argument<Dictionary>::read(above, result));
  ArgumentReader atLimit(content(message), files, size);
  EXPECT_TRUE(Argument<Dictionary>::read(atLimit, result));
}

TEST(Argument, SealedMemoryWithBadContentIsRefused) {
  const std::string garbage(100'000, '\xff');
  auto file = sealedMemoryOf(std::as_bytes(std::span(garbage)));
  ASSERT_TRUE(file);
  ByteSink bytes;
  cbor::Writer writer(bytes);
  writer.tag(kSealedMemoryTag);
  writer.unsignedInteger(garbage.size());
  SealedValues files;
  files.emplace_back(std::move(*file));
  ArgumentReader reader(bytes, files, limits::kFrameBytes);
  Dictionary result;
  EXPECT_FALSE(Argument<Dictionary>::read(reader, result));
}

}  // namespace
}  // namespace keel::xpc
