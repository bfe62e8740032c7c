// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <span>
#include <string_view>

#include "runtime/foundation/cbor_item.h"
#include "runtime/foundation/date.h"
#include "runtime/foundation/error.h"

namespace keel::cbor {

// Walks encoded items in place, without allocating, and accepts what cbor.h accepts. A read that
// meets a fault or an item of another kind returns false and leaves the cursor where it was. Views
// it returns borrow the bytes.
class Cursor {
 public:
  explicit Cursor(std::span<const std::byte> bytes)
      : at_(bytes.data()), end_(bytes.data() + bytes.size()) {}

  bool atEnd() const { return at_ == end_; }
  std::span<const std::byte> rest() const { return {at_, end_}; }

  // Consumes a null if it is next.
  bool null() { return one(kNull); }
  bool boolean(bool& value) {
    return one(kTrue) ? (value = true) : (one(kFalse) && !(value = false));
  }
  bool integer(std::int64_t& value);
  bool unsignedInteger(std::uint64_t& value);
  // Reads a floating-point number of any width; integers are not converted.
  bool real(double& value);
  bool text(std::string_view& value);
  bool bytes(std::span<const std::byte>& value);
  // Reads the head of an array or map; its items (pairs) follow. Fails on a count for which the
  // remaining bytes cannot suffice.
  bool array(std::uint64_t& count);
  bool map(std::uint64_t& pairCount);
  // Reads the head of a tag of any number; its content follows unchecked.
  bool tag(std::uint64_t& number);
  // Reads a date, tag included.
  bool date(Date& value);
  // Reads an error, tag included, nested no deeper than `maximumDepth`; the error's own array
  // counts.
  bool error(Error& value, std::size_t maximumDepth);
  // Reads the next item whole, validates it, and returns the bytes that encode it.
  std::expected<std::span<const std::byte>, Fault> item(std::size_t maximumDepth);

  // Returns the major type of the next item (0 to 7), or nothing at the end.
  std::optional<std::uint8_t> majorType() const {
    if (atEnd()) return std::nullopt;
    return static_cast<std::uint8_t>(majorOf(*at_));
  }

 private:
  // Consumes `item` if it is the next byte.
  bool one(std::uint8_t item) {
    if (atEnd() || *at_ != std::byte{item}) return false;
    ++at_;
    return true;
  }
  // Reads the argument of the next head if it is of type `major`, and returns the position behind
  // it; null otherwise.
  const std::byte* head(Major major, std::uint64_t& argument) const {
    if (atEnd() || majorOf(*at_) != major) return nullptr;
    Head read;
    Fault ignored;
    const std::byte* after = readHead(at_, end_, read, ignored);
    argument = read.argument;
    return after;
  }

  const std::byte* at_;
  const std::byte* end_;
};

inline bool Cursor::unsignedInteger(std::uint64_t& value) {
  std::uint64_t argument;
  const std::byte* after = head(Major::unsignedInteger, argument);
  if (after == nullptr) return false;
  value = argument;
  at_ = after;
  return true;
}

inline bool Cursor::integer(std::int64_t& value) {
  std::uint64_t argument;
  const bool negative = majorType() == static_cast<std::uint8_t>(Major::negativeInteger);
  const std::byte* after =
      head(negative ? Major::negativeInteger : Major::unsignedInteger, argument);
  if (after == nullptr || argument > kInt64Limit) return false;
  value = negative ? -1 - static_cast<std::int64_t>(argument) : static_cast<std::int64_t>(argument);
  at_ = after;
  return true;
}

inline bool Cursor::text(std::string_view& value) {
  std::uint64_t size;
  const std::byte* content = head(Major::text, size);
  if (content == nullptr) return false;
  Fault ignored;
  const std::byte* after = readText(content, end_, size, ignored);
  if (after == nullptr) return false;
  value = {reinterpret_cast<const char*>(content), static_cast<std::size_t>(size)};
  at_ = after;
  return true;
}

inline bool Cursor::bytes(std::span<const std::byte>& value) {
  std::uint64_t size;
  const std::byte* content = head(Major::bytes, size);
  if (content == nullptr || size > bytesBetween(content, end_)) return false;
  value = {content, static_cast<std::size_t>(size)};
  at_ = content + size;
  return true;
}

inline bool Cursor::array(std::uint64_t& count) {
  std::uint64_t argument;
  const std::byte* after = head(Major::array, argument);
  if (after == nullptr || argument > bytesBetween(after, end_)) return false;
  count = argument;
  at_ = after;
  return true;
}

inline bool Cursor::map(std::uint64_t& pairCount) {
  std::uint64_t argument;
  const std::byte* after = head(Major::map, argument);
  if (after == nullptr || argument > bytesBetween(after, end_) / 2) return false;
  pairCount = argument;
  at_ = after;
  return true;
}

inline bool Cursor::tag(std::uint64_t& number) {
  std::uint64_t argument;
  const std::byte* after = head(Major::tag, argument);
  if (after == nullptr) return false;
  number = argument;
  at_ = after;
  return true;
}

}  // namespace keel::cbor
