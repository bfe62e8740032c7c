// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

#include "runtime/foundation/value.h"

// What both forms of property lists do with the keys and texts they find.

namespace keel {

// A key that more than one member of the map has, or null. Borrowed.
const std::string* keyThatStandsTwice(const Value::Map& map);

// The beginning of a text in UTF-8, short enough for a log and cut between characters.
std::string excerptOf(std::string_view text);

}  // namespace keel
