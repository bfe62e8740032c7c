// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "runtime/foundation/value.h"

// Lossless conversion of published data to and from JSON (RFC 8259). Kinds that JSON lacks are
// escaped as a map with one member:
//
//   a date            {"$date": SECONDS}       since 1970-01-01T00:00:00Z
//   bytes             {"$data": "BASE64"}      RFC 4648, with padding
//   an error          {"$error": {"domain": TEXT, "code": INTEGER, "userInfo": MAP or null}}
//   a real number     {"$real": "NaN"}, {"$real": "Infinity"}, {"$real": "-Infinity"}
//   a map that would itself look like an escape   {"$map": {...}}
//
// Integers from -2^63 to 2^64-1 are exact; a number with a fraction or an exponent is a
// floating-point number.

namespace keel {

enum class JsonLetters { utf8, ascii };

std::string jsonOf(const Value& value, JsonLetters letters = JsonLetters::utf8);

// Returns a JSON string, quotes included.
std::string jsonOfText(std::string_view text, JsonLetters letters = JsonLetters::utf8);

// Fails with a message for people that names the fault and its position. Refuses duplicate keys,
// integers out of range, and more than 200 levels.
std::expected<Value, std::string> valueOfJson(std::string_view json);

}  // namespace keel
