// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// Sanitizes untrusted text for a terminal or a message: escapes control, bidirectional and
// invisible characters ("\n", "\u{202e}"), characters unknown to the C library, and invalid UTF-8
// ("\xff"). Text wider than `columns` is truncated and ends with its full length: "aaaa... (1048576
// bytes)".
std::string shownText(std::string_view text, std::size_t columns);

// Like shownText(), in double quotes, for messages.
std::string quotedText(std::string_view text);

// Returns the width of printable text in a terminal, as wcwidth(3) defines it: two columns for wide
// characters, none for combining marks.
std::size_t columnsOf(std::string_view text);

}  // namespace keel
