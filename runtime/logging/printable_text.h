// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// Appends `text` to `line` so that it can disturb neither a terminal nor the reader: control
// characters, line separators, bidirectional controls and bytes that are not valid UTF-8 are shown
// escaped (\n, \r, \t, \x1b, \u202e). Stops before the appended part would exceed `limitBytes`,
// between characters; false when something was left out.
bool appendPrintable(std::string& line, std::string_view text, std::size_t limitBytes);

// The largest length of at most `limitBytes` that does not cut a UTF-8 character of `text` in two.
std::size_t wholeCharacters(std::string_view text, std::size_t limitBytes);

}  // namespace keel
