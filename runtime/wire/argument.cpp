// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/argument.h"

#include "runtime/foundation/cbor.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

constexpr std::uint8_t kArrayType = 4;
constexpr std::uint8_t kMapType = 5;
constexpr std::uint8_t kTagType = 6;

bool isOfType(std::span<const std::byte> item, std::uint8_t major) {
  return !item.empty() && std::to_integer<std::uint8_t>(item.front()) >> 5 == major;
}

}  // namespace

bool ArgumentReader::encodedItem(std::uint8_t major, BufferRef& item) {
  const std::optional<std::uint8_t> next = cursor.majorType();
  if (next == kTagType) return sealedItem(major, item);
  if (next != major) return false;
  auto bytes = cursor.item(depthOf(major));
  if (!bytes || !fitsQuota(bytes->size(), quota_.grantedBytes())) return false;
  item = Buffer::copyOf(*bytes, *quota_.account);
  return true;
}

bool ArgumentReader::string(String& value) {
  std::string_view text;
  if (!cursor.text(text) ||
      !fitsQuota(text.size() + limits::kRecordBytes, quota_.grantedNameBytes()))
    return false;
  if (names_ != nullptr && !confidential_ && text.size() <= NameCache::kLongestBytes) {
    value = names_->nameOf(text);
    return true;
  }
  value = String(text, *quota_.account, limits::kRecordBytes);
  if (confidential_) value.makeSecret();
  return true;
}

bool ArgumentReader::fitsQuota(std::size_t moreBytes, std::size_t limitBytes) {
  overQuota_ = quota_.account->bytes() > limitBytes || moreBytes > quota_.roomBytes(limitBytes);
  return !overQuota_;
}

bool ArgumentReader::sealedItem(std::uint8_t major, BufferRef& item) {
  cbor::Cursor attempt = cursor;
  const std::optional<std::uint64_t> sizeBytes = skipSealedArgument(attempt);
  if (!sizeBytes || values_.empty() || *sizeBytes > sealedLimitBytes_) return false;
  SealedValue value = std::move(values_.front());
  values_.erase(values_.begin());
  value.check(static_cast<std::size_t>(*sizeBytes), quota_);
  overQuota_ = value.state == SealedValue::State::overQuota;
  if (value.state != SealedValue::State::accepted || !isOfType(value.value->bytes(), major))
    return false;
  item = std::move(value.value);
  cursor = attempt;
  return true;
}

void ArgumentWriter::encodedItem(const BufferRef& item) {
  if (!item) {
    message.writer().null();
    return;
  }
  const bool large = takesDescriptors && item->size() >= limits::kSealedMemoryBytes;
  // An existing file costs nothing; new ones are created while they are few.
  const bool affordable =
      large && (item->sealedFile() >= 0 || Buffer::sealedFileCount() < limits::kSealedFiles);
  if (affordable && message.sealedItem(item)) return;
  message.item(item);
}

bool Argument<String>::read(ArgumentReader& reader, String& value) {
  if (reader.cursor.null()) {
    value = nullptr;
    return true;
  }
  return reader.string(value);
}

void Argument<String>::write(ArgumentWriter& writer, const String& value) {
  if (value.isNull()) {
    writer.message.writer().null();
  } else {
    writer.message.writer().text(value.view());
  }
}

bool Argument<Data>::read(ArgumentReader& reader, Data& value) {
  if (reader.cursor.null()) {
    value = nullptr;
    return true;
  }
  std::span<const std::byte> bytes;
  if (!reader.cursor.bytes(bytes)) return false;
  value = Data(bytes);
  return true;
}

void Argument<Data>::write(ArgumentWriter& writer, const Data& value) {
  if (value.isNull()) {
    writer.message.writer().null();
  } else {
    writer.message.writer().bytes(value.bytes());
  }
}

bool Argument<Dictionary>::read(ArgumentReader& reader, Dictionary& value) {
  BufferRef item;
  if (!reader.cursor.null() && !reader.encodedItem(kMapType, item)) return false;
  value = item ? Dictionary(std::move(item)) : Dictionary();
  return true;
}

bool Argument<Array>::read(ArgumentReader& reader, Array& value) {
  BufferRef item;
  if (!reader.cursor.null() && !reader.encodedItem(kArrayType, item)) return false;
  value = item ? Array(std::move(item)) : Array();
  return true;
}

bool Argument<Error>::read(ArgumentReader& reader, Error& value) {
  if (reader.cursor.null()) {
    value = nullptr;
    return true;
  }
  cbor::Cursor attempt = reader.cursor;
  auto item = attempt.item(limits::kDepth);
  if (!item || !isOfType(*item, kTagType)) return false;
  auto decoded = cbor::decode(*item, limits::kDepth);
  const Error* error = decoded ? decoded->as<Error>() : nullptr;
  if (error == nullptr) return false;
  value = *error;
  reader.cursor = attempt;
  return true;
}

}  // namespace keel::xpc
