// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

#include "runtime/foundation/value.h"

// Helpers for keys and texts, shared by both forms of property lists.

namespace keel {

// Returns a key that occurs more than once in the map, or null. Borrowed from `map`.
const std::string* findDuplicateKey(const Value::Map& map);

// Returns the beginning of a UTF-8 text, short enough for a log and cut between characters.
std::string excerptOf(std::string_view text);

}  // namespace keel
