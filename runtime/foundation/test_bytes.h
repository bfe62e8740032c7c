// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cctype>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// For tests: bytes from and to hexadecimal digits.

namespace keel {

// Returns the bytes of "a1 6161 01"; spaces are skipped.
inline std::vector<std::byte> bytesOfHex(std::string_view hex) {
  std::string digits;
  for (const char c : hex) {
    if (std::isxdigit(static_cast<unsigned char>(c)) != 0) digits += c;
  }
  std::vector<std::byte> bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::byte>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

inline std::string hexOf(std::span<const std::byte> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  for (const std::byte byte : bytes) {
    hex += kDigits[std::to_integer<std::size_t>(byte >> 4)];
    hex += kDigits[std::to_integer<std::size_t>(byte & std::byte{0xf})];
  }
  return hex;
}

inline std::vector<std::byte> bytesOfText(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

}  // namespace keel
