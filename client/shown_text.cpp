// SPDX-License-Identifier: Apache-2.0
#include "client/shown_text.h"

#include <fmt/format.h>
#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "runtime/foundation/utf8.h"

namespace keel {

namespace {

constexpr std::size_t kQuotedColumns = 80;

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

// Characters that are always escaped: controls, invisible and bidirectional characters.
constexpr Range kEscaped[] = {{0, 0x1f},        {0x7f, 0x9f},       {0xad, 0xad},
                              {0x61c, 0x61c},   {0x180e, 0x180e},   {0x200b, 0x200f},
                              {0x2028, 0x202e}, {0x2060, 0x206f},   {0xfeff, 0xfeff},
                              {0xfff9, 0xfffb}, {0xe0000, 0xe0fff}, {0xe000, 0xf8ff}};
template <std::size_t N>
bool isIn(std::uint32_t letter, const Range (&ranges)[N]) {
  return std::ranges::any_of(
      ranges, [letter](Range range) { return letter >= range.first && letter <= range.last; });
}

// Returns the C library's width of a character: columns, 0 for a combining mark, or a negative
// number if it is not printable or not assigned. Terminals use the same table, or one like it.
int widthOf(std::uint32_t letter) {
  // Independent of the program's locale. It is part of Debian's C library.
  static const locale_t kUnicode = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (kUnicode == nullptr) return 1;
  const locale_t before = ::uselocale(kUnicode);
  const int width = ::wcwidth(static_cast<wchar_t>(letter));
  ::uselocale(before);
  return width;
}

// Returns true for a character that needs no escape.
bool isPlain(std::uint32_t letter) {
  return !isIn(letter, kEscaped) && widthOf(letter) >= 0;
}

std::size_t columnsOfLetter(std::uint32_t letter) {
  return static_cast<std::size_t>(std::max(widthOf(letter), 0));
}

// Returns the size of the character at the beginning of `text`; 0 if it is invalid.
std::size_t letterBytes(std::string_view text, std::uint32_t& letter) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t size = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (size > text.size() || !isUtf8(text.substr(0, size))) return 0;
  constexpr unsigned kFirstMask[] = {0, 0x7f, 0x1f, 0x0f, 0x07};
  letter = first & kFirstMask[size];
  for (std::size_t i = 1; i < size; ++i)
    letter = letter << 6 | (static_cast<unsigned char>(text[i]) & 0x3fU);
  return size;
}

std::string escaped(std::uint32_t letter) {
  switch (letter) {
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      return fmt::format("\\u{{{:x}}}", letter);
  }
}

}  // namespace

std::string shownText(std::string_view text, std::size_t columns) {
  const std::string length = fmt::format("... ({} bytes)", text.size());
  const std::size_t shortened = columns > length.size() ? columns - length.size() : 0;
  std::string shown;
  std::size_t used = 0;
  std::size_t cut = 0;  // size of `shown` to truncate to if the text is too long
  for (std::size_t at = 0; at < text.size();) {
    std::uint32_t letter = 0;
    const std::size_t size = letterBytes(text.substr(at), letter);
    const bool plain = size != 0 && isPlain(letter);
    const std::string piece = size == 0
                                  ? fmt::format("\\x{:02x}", static_cast<unsigned char>(text[at]))
                              : plain ? std::string(text.substr(at, size))
                                      : escaped(letter);
    used += plain ? columnsOfLetter(letter) : piece.size();
    if (used > columns) return shown.substr(0, cut) + length;
    shown += piece;
    if (used <= shortened) cut = shown.size();
    at += std::max<std::size_t>(size, 1);
  }
  return shown;
}

std::string quotedText(std::string_view text) {
  return "\"" + shownText(text, kQuotedColumns) + "\"";
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  for (std::size_t at = 0; at < text.size();) {
    std::uint32_t letter = 0;
    const std::size_t size = letterBytes(text.substr(at), letter);
    columns += size == 0 ? 1 : columnsOfLetter(letter);
    at += std::max<std::size_t>(size, 1);
  }
  return columns;
}

}  // namespace keel
