// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace keel {

// Returns the word of `known` that `typed` was most likely meant to be, or an empty text: a word of
// which it is a prefix, or one within one typo per three letters (an insertion, deletion,
// substitution or transposition).
std::string nearestWord(std::string_view typed, const std::vector<std::string>& known);

}  // namespace keel
