// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// Appends `text` to `line` in a form that can neither affect a terminal nor mislead a reader:
// control characters, line separators, bidirectional controls and bytes that are not valid UTF-8
// are escaped (\n, \r, \t, \x1b, \u202e). Stops between characters before the appended part would
// exceed `limitBytes`; returns false if something was left out.
bool appendPrintable(std::string& line, std::string_view text, std::size_t limitBytes);

// Returns the largest length of at most `limitBytes` that does not split a UTF-8 character of
// `text`.
std::size_t utf8PrefixBytes(std::string_view text, std::size_t limitBytes);

}  // namespace keel
