// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <string>
#include <string_view>

#include "runtime/foundation/value.h"

// The two forms of property lists, and helpers that their decoders share. All other code uses
// property_list.h.

namespace keel {

// Returns true if `bytes` begin like the binary form, of any version.
bool looksLikeBinaryPropertyList(std::span<const std::byte> bytes);

// Decodes a property list in the binary form, version 00. The error names the offending object.
std::expected<Value, std::string> decodeBinaryPropertyList(std::span<const std::byte> bytes);

// Decodes a property list in XML. A document type may be declared, but neither its content nor
// anything it refers to is read: only XML's five predefined entities exist. Comments and processing
// instructions are skipped. The error begins with the line.
std::expected<Value, std::string> decodeXmlPropertyList(std::span<const std::byte> bytes);

// Returns a key that occurs more than once in the map, or null. Borrowed from `map`.
const std::string* findDuplicateKey(const Value::Map& map);

// Returns the beginning of a UTF-8 text, short enough for a log and cut between characters.
std::string excerptOf(std::string_view text);

}  // namespace keel
