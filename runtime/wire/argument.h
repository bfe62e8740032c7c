// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/memory_account.h"
#include "runtime/foundation/string.h"
#include "runtime/wire/message.h"
#include "runtime/wire/name_cache.h"
#include "runtime/wire/sealed_value.h"

// How each type that may occur in a protocol travels.

namespace keel::xpc {

// Reads the arguments of one message in place. `values` are those that travel beside the message,
// consumed in order; none may be larger than `sealedLimitBytes`.
class ArgumentReader {
 public:
  ArgumentReader(std::span<const std::byte> items, SealedValues& values,
                 std::size_t sealedLimitBytes, const MemoryQuota& quota = MemoryQuota::ofProcess())
      : cursor(items), values_(values), sealedLimitBytes_(sealedLimitBytes), quota_(quota) {}

  // Reads the next item whole, inline or from a sealed memory file. Returns false if it is no
  // acceptable item of CBOR major type `major`.
  bool encodedItem(std::uint8_t major, BufferRef& item);
  // Reads the next item as text.
  bool string(String& value);

  // Returns true if the last read failed because the peer's user is over quota.
  bool isOverQuota() const { return overQuota_; }
  // Returns true while the peer's user is within its quota.
  bool isWithinQuota() { return fitsQuota(0, quota_.grantedBytes()); }
  // Has whatever is read from here on wiped on destruction.
  void setConfidential(bool confidential) { confidential_ = confidential; }
  // Lets text come from `names`, charged to nobody: the request keeps none of it. Borrowed.
  void setNameCache(NameCache& names) { names_ = &names; }

  cbor::Cursor cursor;

 private:
  bool sealedItem(std::uint8_t major, BufferRef& item);
  bool fitsQuota(std::size_t moreBytes, std::size_t limitBytes);

  SealedValues& values_;
  std::size_t sealedLimitBytes_;
  const MemoryQuota& quota_;
  bool overQuota_ = false;
  bool confidential_ = false;
  NameCache* names_ = nullptr;
};

// Writes the arguments of one message. `takesDescriptors`: the peer accepts sealed memory files.
struct ArgumentWriter {
  OutgoingMessage& message;
  bool takesDescriptors;

  void encodedItem(const BufferRef& item);
};

// read() leaves the value unchanged when it returns false.
template <class T>
struct Argument;

template <>
struct Argument<bool> {
  static bool read(ArgumentReader& reader, bool& value) { return reader.cursor.boolean(value); }
  static void write(ArgumentWriter& writer, bool value) { writer.message.writer().boolean(value); }
};

template <>
struct Argument<std::int64_t> {
  static bool read(ArgumentReader& reader, std::int64_t& value) {
    return reader.cursor.integer(value);
  }
  static void write(ArgumentWriter& writer, std::int64_t value) {
    writer.message.writer().integer(value);
  }
};

template <>
struct Argument<std::int32_t> {
  static bool read(ArgumentReader& reader, std::int32_t& value) {
    ArgumentReader attempt = reader;
    std::int64_t wide = 0;
    if (!attempt.cursor.integer(wide)) return false;
    if (wide < std::numeric_limits<std::int32_t>::min() ||
        wide > std::numeric_limits<std::int32_t>::max())
      return false;
    reader.cursor = attempt.cursor;
    value = static_cast<std::int32_t>(wide);
    return true;
  }
  static void write(ArgumentWriter& writer, std::int32_t value) {
    writer.message.writer().integer(value);
  }
};

template <>
struct Argument<std::uint64_t> {
  static bool read(ArgumentReader& reader, std::uint64_t& value) {
    return reader.cursor.unsignedInteger(value);
  }
  static void write(ArgumentWriter& writer, std::uint64_t value) {
    writer.message.writer().unsignedInteger(value);
  }
};

template <>
struct Argument<String> {
  static bool read(ArgumentReader& reader, String& value);
  static void write(ArgumentWriter& writer, const String& value);
};

template <>
struct Argument<Data> {
  static bool read(ArgumentReader& reader, Data& value);
  static void write(ArgumentWriter& writer, const Data& value);
};

template <>
struct Argument<Dictionary> {
  static bool read(ArgumentReader& reader, Dictionary& value);
  static void write(ArgumentWriter& writer, const Dictionary& value) {
    writer.encodedItem(value.buffer());
  }
};

template <>
struct Argument<Array> {
  static bool read(ArgumentReader& reader, Array& value);
  static void write(ArgumentWriter& writer, const Array& value) {
    writer.encodedItem(value.buffer());
  }
};

template <>
struct Argument<Error> {
  static bool read(ArgumentReader& reader, Error& value);
  static void write(ArgumentWriter& writer, const Error& value) {
    writer.message.writer().error(value);
  }
};

}  // namespace keel::xpc
