// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/foundation/byte_sink.h"
#include "runtime/foundation/value.h"

namespace keel::cbor {

// Appends encoded items to bytes of the caller. Heads are written in their shortest form, floating
// point always as 64 bits. Counts must match what follows.
class Writer {
 public:
  explicit Writer(ByteSink& output) : output_(output) {}

  void null() { byte(0xf6); }
  void boolean(bool value) { byte(value ? 0xf5 : 0xf4); }
  void integer(std::int64_t value);
  void unsignedInteger(std::uint64_t value) { head(0, value); }
  void real(double value);
  // `utf8` must be valid UTF-8.
  void text(std::string_view utf8);
  void bytes(std::span<const std::byte> value);
  void array(std::size_t count) { head(4, count); }
  void map(std::size_t pairCount) { head(5, pairCount); }
  void tag(std::uint64_t number) { head(6, number); }
  // Writes tag 1 with an integer when the date is a whole second that fits, else with a double.
  void date(Date value);
  // Writes null for no error.
  void error(const Error& value);
  void value(const Value& value);
  // Appends one item that is already encoded.
  void encoded(std::span<const std::byte> item);

 private:
  void byte(std::uint8_t value) { output_.push(static_cast<std::byte>(value)); }
  void head(std::uint8_t major, std::uint64_t argument) {
    if (argument < 24) [[likely]]
      return byte(static_cast<std::uint8_t>(std::uint64_t{major} << 5 | argument));
    longHead(major, argument);
  }
  void longHead(std::uint8_t major, std::uint64_t argument);

  ByteSink& output_;
};

// Returns the encoding of `value`.
std::vector<std::byte> encode(const Value& value);

}  // namespace keel::cbor
