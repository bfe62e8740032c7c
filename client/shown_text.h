// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// Text that somebody else chose, made fit for a terminal or a message: control characters and those
// that change the direction or are not seen are escaped ("\n", "\u{202e}"), as are letters that the
// C library does not know, and what is not UTF-8
// ("\xff"). Text that would take more than `columns` is cut and ends with its full length: "aaaa...
// (1048576 bytes)".
std::string shownText(std::string_view text, std::size_t columns);

// The same in double quotes, for messages.
std::string quotedText(std::string_view text);

// Columns that printable text takes in a terminal, as wcwidth(3) has them: two for wide letters and
// signs, none for combining marks.
std::size_t columnsOf(std::string_view text);

}  // namespace keel
