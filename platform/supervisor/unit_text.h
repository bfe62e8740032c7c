// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

// How texts of any kind are written in a unit (systemd.syntax(7), systemd.service(5)) so that they
// are read back as they are: nothing in them ends a line, a word or a quotation, or is taken for a
// specifier or a variable.

namespace keel {

// `text` as a part of a unit's name: letters, digits, and _ . - stand for themselves (. and - not
// at the beginning), every other byte is a colon and two hexadecimal digits. Different texts have
// different names.
std::string unitNameOf(std::string_view text);

// One word of a setting that is a list of words, in quotation marks. Any UTF-8 without NUL.
std::string quotedWord(std::string_view text);

// A command line for ExecStart: `program` is run with these arguments, argument 0 among them;
// nothing is expanded.
std::string commandLine(std::string_view program, const std::vector<std::string>& arguments);

// The rest of a line that is read as it stands, but for specifiers: a text without control
// characters, and without a blank or a backslash at its end.
std::string plainSetting(std::string_view text);

// `text` for people, made fit for plainSetting().
std::string describedText(std::string_view text);

}  // namespace keel
