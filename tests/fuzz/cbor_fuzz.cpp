// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <vector>

#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_cursor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/utf8.h"

// Fuzzes every decoder of encoded items. The first byte of the input is the maximum depth.

namespace {

using keel::Date;
using keel::Error;
using keel::Value;
using keel::cbor::Cursor;

using Bytes = std::span<const std::byte>;

// decode() accepts exactly what validate() accepts, reports the same faults, and its values
// round-trip.
void checkDecoding(Bytes input, std::size_t maximumDepth) {
  const auto valid = keel::cbor::validate(input, maximumDepth);
  const auto decoded = keel::cbor::decode(input, maximumDepth);
  KEEL_CHECK(valid.has_value() == decoded.has_value());
  if (!decoded) {
    KEEL_CHECK(valid.error() == decoded.error());
    return;
  }
  const std::vector<std::byte> encoded = keel::cbor::encode(*decoded);
  const auto again = keel::cbor::decode(encoded, maximumDepth);
  KEEL_CHECK(again.has_value());
  // A value with a NaN is unequal to itself, so compare encodings.
  KEEL_CHECK(keel::cbor::encode(*again) == encoded);
  KEEL_CHECK((*again == *decoded) == (*decoded == *decoded));
  KEEL_CHECK(!decoded->description().empty());
}

// Checks one read: its result lies within the bytes, success advances the cursor, failure does not.
template <class Read>
bool reads(const Cursor& before, Cursor& after, Read read) {
  after = before;
  const bool succeeded = read(after);
  const Bytes from = before.rest(), to = after.rest();
  KEEL_CHECK(to.data() + to.size() == from.data() + from.size());
  KEEL_CHECK(succeeded ? to.size() < from.size() : to.size() == from.size());
  return succeeded;
}

void checkWithin(Bytes whole, const void* begin, std::size_t size) {
  const auto* first = static_cast<const std::byte*>(begin);
  KEEL_CHECK(first >= whole.data() && first + size <= whole.data() + whole.size());
  // Touches each byte, for the address sanitizer to see.
  static volatile unsigned sum;
  for (const std::byte byte : Bytes(first, size)) sum = sum + std::to_integer<unsigned>(byte);
}

// Tries every read at each reachable position, heads before whole items, until none succeeds.
void checkCursor(Bytes input, std::size_t maximumDepth) {
  Cursor at(input), next(input);
  for (bool moved = true; moved;) {
    moved = false;
    const auto attempt = [&](auto read) {
      Cursor after(input);
      if (!reads(at, after, read)) return;
      if (!moved) next = after;
      moved = true;
    };
    std::uint64_t number = 0;
    std::int64_t integer = 0;
    bool boolean = false;
    double real = 0;
    std::string_view text;
    Bytes bytes;
    Date date;
    Error error;
    attempt([&](Cursor& cursor) { return cursor.tag(number); });
    attempt([&](Cursor& cursor) {
      if (!cursor.array(number)) return false;
      KEEL_CHECK(number <= cursor.rest().size());
      return true;
    });
    attempt([&](Cursor& cursor) {
      if (!cursor.map(number)) return false;
      KEEL_CHECK(number <= cursor.rest().size() / 2);
      return true;
    });
    attempt([&](Cursor& cursor) { return cursor.null(); });
    attempt([&](Cursor& cursor) { return cursor.boolean(boolean); });
    attempt([&](Cursor& cursor) { return cursor.integer(integer); });
    attempt([&](Cursor& cursor) { return cursor.unsignedInteger(number); });
    attempt([&](Cursor& cursor) { return cursor.real(real); });
    attempt([&](Cursor& cursor) { return cursor.text(text); });
    attempt([&](Cursor& cursor) { return cursor.bytes(bytes); });
    attempt([&](Cursor& cursor) { return cursor.date(date); });
    attempt([&](Cursor& cursor) { return cursor.error(error, maximumDepth); });
    attempt([&](Cursor& cursor) {
      const auto item = cursor.item(maximumDepth);
      if (!item) return false;
      checkWithin(input, item->data(), item->size());
      KEEL_CHECK(keel::cbor::validate(*item, maximumDepth).has_value());
      return true;
    });
    if (!text.empty()) {
      checkWithin(input, text.data(), text.size());
      KEEL_CHECK(keel::isUtf8(text));
    }
    if (!bytes.empty()) checkWithin(input, bytes.data(), bytes.size());
    KEEL_CHECK(at.majorType().has_value() == !at.atEnd());
    at = next;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t maximumDepth = data[0] % (keel::cbor::kDepthCapacity + 1);
  // A copy of exactly that size, so that the address sanitizer sees every read beyond it.
  const auto* first = reinterpret_cast<const std::byte*>(data);
  const std::vector<std::byte> input(first + 1, first + size);
  checkDecoding(input, maximumDepth);
  checkCursor(input, maximumDepth);
  return 0;
}
