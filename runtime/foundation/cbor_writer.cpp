// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor_writer.h"

#include <bit>
#include <cmath>

#include "runtime/foundation/cbor_item.h"
#include "runtime/foundation/check.h"

namespace keel::cbor {

void Writer::longHead(std::uint8_t major, std::uint64_t argument) {
  const unsigned power = argument <= 0xff          ? 0
                         : argument <= 0xffff      ? 1
                         : argument <= 0xffff'ffff ? 2
                                                   : 3;
  output_.appendBigEndian(static_cast<std::byte>(unsigned{major} << 5 | (24 + power)), argument,
                          std::size_t{1} << power);
}

void Writer::integer(std::int64_t value) {
  if (value >= 0) return head(0, static_cast<std::uint64_t>(value));
  head(1, static_cast<std::uint64_t>(-1 - value));
}

void Writer::real(double value) {
  output_.appendBigEndian(std::byte{0xfb}, std::bit_cast<std::uint64_t>(value), sizeof value);
}

void Writer::text(std::string_view utf8) {
  head(3, utf8.size());
  encoded(std::as_bytes(std::span(utf8)));
}

void Writer::bytes(std::span<const std::byte> value) {
  head(2, value.size());
  encoded(value);
}

void Writer::date(Date value) {
  KEEL_CHECK(std::isfinite(value.secondsSinceEpoch));
  tag(kDateTag);
  if (const auto whole = value.wholeSeconds()) return integer(*whole);
  real(value.secondsSinceEpoch);
}

void Writer::error(const Error& value) {
  if (!value) return null();
  tag(kErrorTag);
  array(3);
  text(value.domain().view());
  integer(value.code());
  const Dictionary userInfo = value.userInfo();
  if (userInfo.isNull()) return null();
  encoded(userInfo.encoded());
}

void Writer::encoded(std::span<const std::byte> item) {
  output_.append(item);
}

namespace {

// Writes the kind that a Value holds.
struct HeldWriter {
  Writer& writer;

  void operator()(std::nullptr_t) const { writer.null(); }
  void operator()(bool boolean) const { writer.boolean(boolean); }
  void operator()(std::int64_t integer) const { writer.integer(integer); }
  void operator()(std::uint64_t integer) const { writer.unsignedInteger(integer); }
  void operator()(double real) const { writer.real(real); }
  void operator()(const std::string& text) const { writer.text(text); }
  void operator()(const Value::Bytes& bytes) const { writer.bytes(bytes); }
  void operator()(Date date) const { writer.date(date); }
  void operator()(const Error& error) const { writer.error(error); }
  void operator()(const Value::List& list) const {
    writer.array(list.size());
    for (const Value& item : list) writer.value(item);
  }
  void operator()(const Value::Map& map) const {
    writer.map(map.size());
    for (const Member& member : map) {
      writer.text(member.key);
      writer.value(member.value);
    }
  }
};

}  // namespace

void Writer::value(const Value& value) {
  std::visit(HeldWriter{*this}, value.held());
}

std::vector<std::byte> encode(const Value& value) {
  ByteSink output;
  Writer(output).value(value);
  return {output.bytes().begin(), output.bytes().end()};
}

}  // namespace keel::cbor
