// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/printable_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace keel {
namespace {

struct Character {
  char32_t codePoint = 0;
  std::size_t length = 1;
  bool valid = false;
};

std::uint8_t byteAt(std::string_view text, std::size_t index) {
  return static_cast<std::uint8_t>(text[index]);
}

bool isContinuation(std::uint8_t byte) {
  return (byte & 0xc0) == 0x80;
}

// Returns the first character of `text`, which is not empty; strict as RFC 3629. An invalid byte
// has length 1.
Character firstCharacter(std::string_view text) {
  const std::uint8_t lead = byteAt(text, 0);
  if (lead < 0x80) return {lead, 1, true};
  const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return {};
  char32_t codePoint = lead & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (!isContinuation(byteAt(text, i))) return {};
    codePoint = (codePoint << 6) | (byteAt(text, i) & 0x3fU);
  }
  constexpr char32_t kSmallestOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
  if (codePoint < kSmallestOfLength[length] || codePoint > 0x10ffff || surrogate) return {};
  return {codePoint, length, true};
}

bool needsEscape(char32_t c) {
  return c < 0x20 || (c >= 0x7f && c <= 0x9f) ||       // C0, DEL, C1
         c == 0x061c || c == 0x200e || c == 0x200f ||  // directional marks
         (c >= 0x2028 && c <= 0x202e) ||  // separators, directional embeddings and overrides
         (c >= 0x2066 && c <= 0x2069) || c == 0xfeff;  // directional isolates, byte order mark
}

void appendEscaped(std::string& line, char32_t c) {
  switch (c) {
    case '\n':
      line += "\\n";
      return;
    case '\r':
      line += "\\r";
      return;
    case '\t':
      line += "\\t";
      return;
    default:
      break;
  }
  if (c < 0x80)
    fmt::format_to(std::back_inserter(line), "\\x{:02x}", static_cast<std::uint32_t>(c));
  else
    fmt::format_to(std::back_inserter(line), "\\u{:04x}", static_cast<std::uint32_t>(c));
}

}  // namespace

bool appendPrintable(std::string& line, std::string_view text, std::size_t limitBytes) {
  const std::size_t start = line.size();
  while (!text.empty()) {
    const std::size_t before = line.size();
    const Character character = firstCharacter(text);
    if (!character.valid)
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", byteAt(text, 0));
    else if (needsEscape(character.codePoint))
      appendEscaped(line, character.codePoint);
    else
      line.append(text.substr(0, character.length));
    if (line.size() - start > limitBytes) {
      line.resize(before);
      return false;
    }
    text.remove_prefix(character.length);
  }
  return true;
}

std::size_t utf8PrefixBytes(std::string_view text, std::size_t limitBytes) {
  if (text.size() <= limitBytes) return text.size();
  // A character has at most three continuation bytes; more of them in a row are not text, and are
  // cut anywhere.
  for (std::size_t back = 0; back <= std::min<std::size_t>(3, limitBytes); ++back)
    if (!isContinuation(byteAt(text, limitBytes - back))) return limitBytes - back;
  return limitBytes;
}

}  // namespace keel
