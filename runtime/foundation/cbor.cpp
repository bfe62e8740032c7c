// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor.h"

#include <string>
#include <utility>

#include "runtime/foundation/cbor_cursor.h"
#include "runtime/foundation/check.h"

// Decoding follows validation and relies on it: depth is bounded, so building may recurse, and
// every count is at most the number of bytes, so space may be reserved. A read that fails here
// means that validate() and Cursor disagree.

namespace keel::cbor {

namespace {

Value build(Cursor& cursor);

std::string buildText(Cursor& cursor) {
  std::string_view text;
  KEEL_CHECK(cursor.text(text));
  return std::string(text);
}

Value buildInteger(Cursor& cursor) {
  std::uint64_t natural;
  if (cursor.unsignedInteger(natural)) return Value(natural);
  std::int64_t negative;
  KEEL_CHECK(cursor.integer(negative));
  return Value(negative);
}

Value buildBytes(Cursor& cursor) {
  std::span<const std::byte> bytes;
  KEEL_CHECK(cursor.bytes(bytes));
  return Value(Value::Bytes(bytes.begin(), bytes.end()));
}

Value buildList(Cursor& cursor) {
  std::uint64_t count;
  KEEL_CHECK(cursor.array(count));
  Value::List list;
  list.reserve(count);
  for (; count > 0; --count) list.push_back(build(cursor));
  return Value(std::move(list));
}

Value buildMap(Cursor& cursor) {
  std::uint64_t pairCount;
  KEEL_CHECK(cursor.map(pairCount));
  Value::Map map;
  map.reserve(pairCount);
  for (; pairCount > 0; --pairCount) {
    std::string key = buildText(cursor);
    map.push_back(Member{std::move(key), build(cursor)});
  }
  return Value(std::move(map));
}

Value buildTagged(Cursor& cursor) {
  Date date;
  if (cursor.date(date)) return Value(date);
  Error error;
  KEEL_CHECK(cursor.error(error, kDepthCapacity));
  return Value(std::move(error));
}

Value buildSimple(Cursor& cursor) {
  if (cursor.null()) return Value();
  bool boolean;
  if (cursor.boolean(boolean)) return Value(boolean);
  double real;
  KEEL_CHECK(cursor.real(real));
  return Value(real);
}

Value build(Cursor& cursor) {
  const auto major = cursor.majorType();
  KEEL_CHECK(major.has_value());
  switch (static_cast<Major>(*major)) {
    case Major::unsignedInteger:
    case Major::negativeInteger:
      return buildInteger(cursor);
    case Major::bytes:
      return buildBytes(cursor);
    case Major::text:
      return Value(buildText(cursor));
    case Major::array:
      return buildList(cursor);
    case Major::map:
      return buildMap(cursor);
    case Major::tag:
      return buildTagged(cursor);
    case Major::simple:
      break;
  }
  return buildSimple(cursor);
}

}  // namespace

std::expected<void, Fault> validate(std::span<const std::byte> bytes, std::size_t maximumDepth) {
  const std::byte* end = bytes.data() + bytes.size();
  Fault fault{};
  const std::byte* at = readItem(bytes.data(), end, maximumDepth, fault);
  if (at == nullptr) return std::unexpected(fault);
  if (at != end) return std::unexpected(Fault::trailingBytes);
  return {};
}

std::expected<Value, Fault> decode(std::span<const std::byte> bytes, std::size_t maximumDepth) {
  if (const auto valid = validate(bytes, maximumDepth); !valid)
    return std::unexpected(valid.error());
  Cursor cursor(bytes);
  Value value = build(cursor);
  KEEL_CHECK(cursor.atEnd());
  return value;
}

}  // namespace keel::cbor
