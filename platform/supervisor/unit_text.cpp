// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/unit_text.h"

#include <fmt/format.h>

namespace keel {

namespace {

bool isPlainInName(char letter) {
  return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
         (letter >= '0' && letter <= '9') || letter == '_' || letter == '.' || letter == '-';
}

unsigned byteOf(char letter) {
  return static_cast<unsigned char>(letter);
}

}  // namespace

// The backslashes of systemd-escape(1) are lost in some settings that name units.
std::string unitNameOf(std::string_view text) {
  std::string name;
  for (const char letter : text) {
    const bool atBeginning = name.empty() && (letter == '.' || letter == '-');
    if (isPlainInName(letter) && !atBeginning) {
      name += letter;
    } else {
      name += fmt::format(":{:02x}", byteOf(letter));
    }
  }
  return name;
}

std::string quotedWord(std::string_view text) {
  std::string word = "\"";
  for (const char letter : text) {
    if (letter == '"' || letter == '\\') {
      word += '\\';
      word += letter;
    } else if (letter == '%') {
      word += "%%";
    } else if (byteOf(letter) < 0x20 || byteOf(letter) == 0x7f) {
      word += fmt::format("\\x{:02x}", byteOf(letter));
    } else {
      word += letter;
    }
  }
  return word + '"';
}

// The colon disables variable expansion, the at sign makes the next word argument 0. Both go before
// the opening quotation mark, which may occur inside a word.
std::string commandLine(std::string_view program, const std::vector<std::string>& arguments) {
  std::string line = ":@" + quotedWord(program);
  for (const std::string& argument : arguments) line += ' ' + quotedWord(argument);
  return line;
}

std::string plainSetting(std::string_view text) {
  std::string setting;
  for (const char letter : text) {
    if (letter == '%') setting += '%';
    setting += letter;
  }
  return setting;
}

std::string describedText(std::string_view text) {
  std::string described;
  for (const char letter : text)
    described += byteOf(letter) < 0x20 || byteOf(letter) == 0x7f || letter == '\\' ? '?' : letter;
  return described;
}

}  // namespace keel
