// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// Returns `text` with every line longer than `columns` wrapped at blanks. Continuation lines are
// indented like their line; if the line has two parts separated by two or more blanks, as in the
// lists of --help, like its second part. A word that is too long is not broken. Trailing blanks are
// dropped.
std::string wrappedText(std::string_view text, std::size_t columns);

}  // namespace keel
