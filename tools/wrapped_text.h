// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// Returns `text` with every line that is longer than `columns` broken at blanks. What follows a
// break is indented like the line; in a line of two parts with two or more blanks between them,
// as in the lists of --help, like its second part. A word that is too long stays whole. Blanks at
// the ends of lines are dropped.
std::string wrappedText(std::string_view text, std::size_t columns);

}  // namespace keel
