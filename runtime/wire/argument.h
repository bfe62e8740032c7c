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

// How each type that may stand in a protocol travels.

namespace keel::xpc {

// Reads the arguments of one message in place. `files` are the sealed memory files that came for
// it, taken in order; none may be larger than `sealedLimitBytes`.
class ArgumentReader {
 public:
  ArgumentReader(std::span<const std::byte> items, std::vector<FileDescriptor>& files,
                 std::size_t sealedLimitBytes, const MemoryQuota& quota = MemoryQuota::ofProcess())
      : cursor(items), files_(files), sealedLimitBytes_(sealedLimitBytes), quota_(quota) {}

  // The next item whole, whether it stands here or in a sealed memory file; false when it is no
  // acceptable item of CBOR major type `major`.
  bool encodedItem(std::uint8_t major, BufferRef& item);
  // The next item as text.
  bool string(String& value);

  // Whether a read failed because the peer holds too much already.
  bool isOverQuota() const { return overQuota_; }
  // Whether the peer may hold one thing more that is kept for it.
  bool mayHoldMore() { return mayHold(0, quota_.grantedBytes()); }
  // What is read from here on is wiped when it is let go of.
  void setConfidential(bool confidential) { confidential_ = confidential; }
  // Text that is read from here on may come from `names`, charged to nobody: the request keeps none
  // of it. Borrowed.
  void takeNamesFrom(NameCache& names) { names_ = &names; }

  cbor::Cursor cursor;

 private:
  bool sealedItem(std::uint8_t major, BufferRef& item);
  bool mayHold(std::size_t moreBytes, std::size_t limitBytes);

  std::vector<FileDescriptor>& files_;
  std::size_t sealedLimitBytes_;
  const MemoryQuota& quota_;
  bool overQuota_ = false;
  bool confidential_ = false;
  NameCache* names_ = nullptr;
};

// Writes the arguments of one message; `takesDescriptors` says whether the peer does.
struct ArgumentWriter {
  OutgoingMessage& message;
  bool takesDescriptors;

  void encodedItem(const BufferRef& item);
};

// read() leaves the value alone when it returns false. sameAs() tells cheaply whether two values
// are equal; it may say no for equal ones that are costly to compare.
template <class T>
struct Argument;

template <>
struct Argument<bool> {
  static bool read(ArgumentReader& reader, bool& value) { return reader.cursor.boolean(value); }
  static void write(ArgumentWriter& writer, bool value) { writer.message.writer().boolean(value); }
  static bool sameAs(bool left, bool right) { return left == right; }
};

template <>
struct Argument<std::int64_t> {
  static bool read(ArgumentReader& reader, std::int64_t& value) {
    return reader.cursor.integer(value);
  }
  static void write(ArgumentWriter& writer, std::int64_t value) {
    writer.message.writer().integer(value);
  }
  static bool sameAs(std::int64_t left, std::int64_t right) { return left == right; }
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
  static bool sameAs(std::int32_t left, std::int32_t right) { return left == right; }
};

template <>
struct Argument<std::uint64_t> {
  static bool read(ArgumentReader& reader, std::uint64_t& value) {
    return reader.cursor.unsignedInteger(value);
  }
  static void write(ArgumentWriter& writer, std::uint64_t value) {
    writer.message.writer().unsignedInteger(value);
  }
  static bool sameAs(std::uint64_t left, std::uint64_t right) { return left == right; }
};

template <>
struct Argument<String> {
  static bool read(ArgumentReader& reader, String& value);
  static void write(ArgumentWriter& writer, const String& value);
  static bool sameAs(const String& left, const String& right) { return left == right; }
};

template <>
struct Argument<Data> {
  static bool read(ArgumentReader& reader, Data& value);
  static void write(ArgumentWriter& writer, const Data& value);
  static bool sameAs(const Data&, const Data&) { return false; }
};

template <>
struct Argument<Dictionary> {
  static bool read(ArgumentReader& reader, Dictionary& value);
  static void write(ArgumentWriter& writer, const Dictionary& value) {
    writer.encodedItem(value.buffer());
  }
  static bool sameAs(const Dictionary& left, const Dictionary& right) {
    return left.buffer() == right.buffer();
  }
};

template <>
struct Argument<Array> {
  static bool read(ArgumentReader& reader, Array& value);
  static void write(ArgumentWriter& writer, const Array& value) {
    writer.encodedItem(value.buffer());
  }
  static bool sameAs(const Array& left, const Array& right) {
    return left.buffer() == right.buffer();
  }
};

template <>
struct Argument<Error> {
  static bool read(ArgumentReader& reader, Error& value);
  static void write(ArgumentWriter& writer, const Error& value) {
    writer.message.writer().error(value);
  }
  static bool sameAs(const Error& left, const Error& right) { return !left && !right; }
};

}  // namespace keel::xpc
