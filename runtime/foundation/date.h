// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace keel {

// A point in time: seconds since 1970-01-01T00:00:00Z without leap seconds, as on the wire (RFC
// 8949, tag 1). Finite; resolution is better than a microsecond in this century.
struct Date {
  double secondsSinceEpoch = 0;

  static Date now();
  // Returns the seconds as an integer if they are whole and within 2^53 of the epoch, where the
  // conversion is exact.
  std::optional<std::int64_t> wholeSeconds() const;
  // Returns text independent of the locale, "2026-11-20T09:30:00.123456Z"; outside the years 0000
  // to 9999 the plain seconds.
  std::string description() const;

  friend auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace keel
