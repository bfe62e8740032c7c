// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace keel {

// Returns the word of `known` that `typed` was most likely meant to be, or an empty text when none
// is near: one that it begins, or one that a slip of the fingers in each three letters explains
// (a letter too many, too few, another one, or two that changed places).
std::string nearestWord(std::string_view typed, const std::vector<std::string>& known);

}  // namespace keel
