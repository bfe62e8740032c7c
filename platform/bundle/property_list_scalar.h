// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string_view>

#include "runtime/foundation/value.h"

// Values of property lists that are written as text, read from it; nothing when the text is not
// exactly that. No locale has a say. White space around a number or a date, and anywhere in data,
// is skipped.

namespace keel {

// The white space of XML.
inline constexpr std::string_view kPropertyListSpace = " \t\r\n";

// Decimal digits with a sign or none, or "0x" and hexadecimal digits; from -2^63 to 2^64-1.
std::optional<Value> integerOfText(std::string_view text);
// "1", "-2.5", "6e23", "nan", "+infinity", "-inf".
std::optional<Value> realOfText(std::string_view text);
// "2026-11-20T09:30:00Z", a day and time that exist, from the year 1 on.
std::optional<Value> dateOfText(std::string_view text);
// Base64 (RFC 4648) with its padding.
std::optional<Value> dataOfText(std::string_view text);

}  // namespace keel
