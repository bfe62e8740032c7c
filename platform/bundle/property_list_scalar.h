// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string_view>

#include "runtime/foundation/value.h"

// Parses property list scalars from text; returns nothing unless the whole text matches.
// Independent of the locale. White space is skipped around a number or a date, and anywhere in
// data.

namespace keel {

// The white space of XML.
inline constexpr std::string_view kPropertyListSpace = " \t\r\n";

// Accepts decimal digits with an optional sign, or "0x" and hexadecimal digits; from -2^63 to
// 2^64-1.
std::optional<Value> integerOfText(std::string_view text);
// Accepts "1", "-2.5", "6e23", "nan", "+infinity", "-inf".
std::optional<Value> realOfText(std::string_view text);
// Accepts "2026-11-20T09:30:00Z": a valid date and time from the year 1 on.
std::optional<Value> dateOfText(std::string_view text);
// Accepts padded base64 (RFC 4648).
std::optional<Value> dataOfText(std::string_view text);

}  // namespace keel
