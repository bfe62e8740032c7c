// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keel {

// Base64 (RFC 4648, section 4) with padding. Strict: no other characters, and every byte string has
// exactly one encoding.
std::string encodeBase64(std::span<const std::byte> bytes);
// Returns nothing if `text` is not valid.
std::optional<std::vector<std::byte>> decodeBase64(std::string_view text);

// Upper bound of the size that `text` decodes to.
constexpr std::size_t maximumDecodedBytes(std::string_view text) {
  return text.size() / 4 * 3;
}
// Decodes into memory of the caller alone, for data that must be wiped afterwards: at least
// maximumDecodedBytes(text) bytes. Returns how many are filled, or nothing if `text` is not valid;
// then any of them may have been written.
std::optional<std::size_t> decodeBase64(std::string_view text, std::span<std::byte> into);

}  // namespace keel
