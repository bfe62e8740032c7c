// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keel {

// RFC 4648, section 4, with padding; no other letters are taken, and each sequence of bytes has one
// text only.
std::string base64Of(std::span<const std::byte> bytes);
std::optional<std::vector<std::byte>> bytesOfBase64(std::string_view text);

// What `text` decodes to never has more bytes than this.
constexpr std::size_t largestBytesOfBase64(std::string_view text) {
  return text.size() / 4 * 3;
}
// Decodes into the caller's memory alone, for what must be wiped afterwards: into at least
// largestBytesOfBase64(text) bytes, of which it yields how many are filled. Nothing when `text` is
// no such text; then any of them may have been written.
std::optional<std::size_t> decodeBase64(std::string_view text, std::span<std::byte> into);

}  // namespace keel
