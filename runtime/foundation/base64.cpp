// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/base64.h"

#include <algorithm>
#include <cstdint>

namespace keel {

namespace {

constexpr std::string_view kLetters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string encodeBase64(std::span<const std::byte> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i)
      group = group << 8 | (i < count ? std::to_integer<std::uint32_t>(bytes[at + i]) : 0);
    for (std::size_t i = 0; i < 4; ++i)
      text += i <= count ? kLetters[group >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

std::optional<std::size_t> decodeBase64(std::string_view text, std::span<std::byte> into) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  std::size_t count = 0;
  std::uint32_t group = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool padded = at >= text.size() - padding;
    const std::size_t letter = padded ? 0 : kLetters.find(text[at]);
    if (letter == std::string_view::npos) return std::nullopt;
    group = group << 6 | static_cast<std::uint32_t>(letter);
    if (at % 4 == 3) {
      for (unsigned shift : {16U, 8U, 0U})
        into[count++] = static_cast<std::byte>(group >> shift & 0xff);
      group = 0;
    }
  }
  // Bits cut off by the padding must be 0: one encoding per byte string.
  for (; padding > 0; --padding) {
    if (into[--count] != std::byte{0}) return std::nullopt;
  }
  return count;
}

std::optional<std::vector<std::byte>> decodeBase64(std::string_view text) {
  std::vector<std::byte> bytes(maximumDecodedBytes(text));
  const auto count = decodeBase64(text, bytes);
  if (!count) return std::nullopt;
  bytes.resize(*count);
  return bytes;
}

}  // namespace keel
