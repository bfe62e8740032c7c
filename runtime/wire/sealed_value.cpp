// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/sealed_value.h"

#include <algorithm>
#include <utility>

#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_cursor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/sealed_memory.h"
#include "runtime/wire/limits.h"
#include "runtime/wire/message.h"

namespace keel::xpc {

namespace {

constexpr std::uint8_t kArrayType = 4;
constexpr std::uint8_t kMapType = 5;

// Smaller items are copied, and checked again when they are read.
constexpr std::size_t kLargeItemBytes = 4096;

bool fits(std::size_t bytes, const MemoryQuota& quota) {
  return bytes <= quota.roomBytes(quota.grantedBytes());
}

std::uint8_t majorOf(std::span<const std::byte> item) {
  return item.empty() ? 0xff : std::to_integer<std::uint8_t>(item.front()) >> 5;
}

}  // namespace

std::size_t depthOf(std::uint8_t major) {
  return limits::kDepth + (major == kArrayType ? limits::kArrayWrapping : 0);
}

SealedValue SealedValue::copyOf(std::span<const std::byte> item, const MemoryQuota& quota) {
  SealedValue copy;
  copy.state = fits(item.size(), quota) ? State::accepted : State::overQuota;
  if (copy.state == State::accepted) copy.value = Buffer::copyOf(item, *quota.account);
  return copy;
}

void SealedValue::check(std::size_t sizeBytes, const MemoryQuota& quota) {
  if (state != State::received) return;
  FileDescriptor opened = std::move(file);
  if (!fits(sizeBytes, quota)) {
    state = State::overQuota;
    return;
  }
  state = State::refused;
  auto mapped = openSealedMemory(std::move(opened), sizeBytes, *quota.account);
  if (!mapped) return;
  const std::span<const std::byte> bytes = (*mapped)->bytes();
  const std::uint8_t major = majorOf(bytes);
  if ((major != kArrayType && major != kMapType) || !cbor::validate(bytes, depthOf(major))) return;
  state = State::accepted;
  // Every mapping holds a descriptor; beyond a number of them the bytes are copied, so that values
  // cannot exhaust the descriptor table.
  value = Buffer::sealedFileCount() > limits::kSealedFiles ? Buffer::copyOf(bytes, *quota.account)
                                                           : std::move(*mapped);
}

CheckedMessage checkMessage(std::span<const std::byte> frame, SealedValues values,
                            std::size_t sealedLimitBytes, const MemoryQuota& quota) {
  CheckedMessage checked;
  cbor::Cursor cursor(frame);
  const auto argumentCount = skipToArguments(cursor);
  if (!argumentCount) {
    checked.frame.assign(frame.begin(), frame.end());
    for (SealedValue& value : values) checked.unclaimed.push_back(std::move(value.file));
    return checked;
  }

  ByteSink bytes;
  const auto copy = [&](std::span<const std::byte> some) { bytes.append(some); };
  copy(frame.first(frame.size() - cursor.rest().size()));
  std::size_t taken = 0;
  for (std::uint64_t i = 0; i < *argumentCount && !cursor.rest().empty(); ++i) {
    const std::span<const std::byte> before = cursor.rest();
    if (const auto sizeBytes = skipSealedArgument(cursor)) {
      copy(before.first(before.size() - cursor.rest().size()));
      if (taken == values.size()) continue;
      SealedValue& value = checked.values.emplace_back(std::move(values[taken++]));
      if (*sizeBytes <= sealedLimitBytes) value.check(static_cast<std::size_t>(*sizeBytes), quota);
      continue;
    }
    const std::uint8_t major = majorOf(before);
    const auto item = cursor.item(depthOf(major));
    if (!item) {
      // A byte that begins no item keeps it malformed; the rest need not be read again.
      constexpr std::byte kBreak{0xff};
      copy({&kBreak, 1});
      break;
    }
    if (item->size() < kLargeItemBytes || (major != kArrayType && major != kMapType)) {
      copy(*item);
      continue;
    }
    cbor::Writer writer(bytes);
    writer.tag(kSealedMemoryTag);
    writer.unsignedInteger(item->size());
    checked.values.push_back(SealedValue::copyOf(*item, quota));
  }
  // Bytes behind the last argument make the message malformed, however many they are.
  copy(cursor.rest().first(std::min(cursor.rest().size(), std::size_t{1})));
  checked.frame.assign(bytes.bytes().begin(), bytes.bytes().end());
  for (; taken < values.size(); ++taken) checked.unclaimed.push_back(std::move(values[taken].file));
  return checked;
}

}  // namespace keel::xpc
