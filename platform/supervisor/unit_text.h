// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Escaping for unit files (systemd.syntax(7), systemd.service(5)): any text is read back unchanged.
// Nothing in it ends a line, a word or a quotation, or is taken for a specifier or a variable.

namespace keel {

// Returns `text` as part of a unit's name: letters, digits, and _ . - stay (. and - not at the
// beginning), every other byte becomes a colon and two hexadecimal digits. Injective.
std::string unitNameOf(std::string_view text);

// Returns one quoted word of a setting that is a list of words. `text` is any UTF-8 without NUL.
std::string quotedWord(std::string_view text);

// Returns a command line for ExecStart that runs `program` with these arguments, argument 0
// included, and expands nothing.
std::string commandLine(std::string_view program, const std::vector<std::string>& arguments);

// Returns the value of a setting that systemd takes verbatim except for specifiers. `text` has no
// control characters, and no trailing blank or backslash.
std::string plainSetting(std::string_view text);

// Returns `text` sanitized for plainSetting(), for display.
std::string describedText(std::string_view text);

}  // namespace keel
