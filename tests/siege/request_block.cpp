// SPDX-License-Identifier: Apache-2.0
#include "tests/siege/request_block.h"

#include <fmt/format.h>

#include <bit>
#include <cstring>
#include <span>

#include "runtime/foundation/cbor_writer.h"
#include "tests/siege/raw_client.h"

namespace keel::siege {

namespace {

constexpr std::uint64_t kLargeValueTag = 51742;

std::string framed(std::span<const std::byte> body) {
  std::string frame;
  for (int i = 0; i < 4; ++i) frame.push_back(static_cast<char>(body.size() >> (8 * i)));
  frame.append(reinterpret_cast<const char*>(body.data()), body.size());
  return frame;
}

}  // namespace

void storeWide(char* bytes, std::uint64_t value) {
  if constexpr (std::endian::native == std::endian::little) value = std::byteswap(value);
  std::memcpy(bytes, &value, sizeof value);
}

std::uint64_t loadWide(const char* bytes) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes, sizeof value);
  if constexpr (std::endian::native == std::endian::little) value = std::byteswap(value);
  return value;
}

std::string frameOf(const Value& message) {
  return framed(cbor::encode(message));
}

std::string helloFrame(Descriptors descriptors) {
  return frameOf(
      Value::list({0, 1, Value::list({"updateSubscriptionFor:withItem:flags:error:"}),
                   Value::map({{"descriptors", descriptors == Descriptors::accepted}})}));
}

std::string oneWayFrame(int method, const Value& arguments) {
  return frameOf(Value::list({2, method, arguments}));
}

std::string requestFrame(int method, const Value& arguments) {
  return frameOf(Value::list({1, kFirstWideId, method, arguments}));
}

std::string sealedUpdateFrame(std::uint64_t sizeBytes, const std::string& name) {
  ByteSink sink;
  cbor::Writer writer(sink);
  writer.array(4);
  writer.unsignedInteger(1);
  writer.unsignedInteger(kFirstWideId);
  writer.unsignedInteger(static_cast<std::uint64_t>(NotifyMethod::update));
  writer.array(2);
  writer.tag(kLargeValueTag);
  writer.unsignedInteger(sizeBytes);
  writer.text(name);
  return framed(sink.bytes());
}

void RequestBlock::appendRequest(const std::string& frame) {
  idOffsets_.push_back(bytes_.size() + kWideIdOffset);
  if (const auto digits = frame.find(kUniqueDigits); digits != frame.npos) {
    digitsOffsets_.push_back(bytes_.size() + digits);
  }
  bytes_ += frame;
}

void RequestBlock::renumber() {
  for (const std::size_t offset : idOffsets_) storeWide(bytes_.data() + offset, nextId_++);
  for (const std::size_t offset : digitsOffsets_) {
    fmt::format_to(bytes_.data() + offset, "{:016x}", nextId_++);
  }
}

}  // namespace keel::siege
