// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keel {

// RFC 4648, section 4, with padding; no other letters are taken.
std::string base64Of(std::span<const std::byte> bytes);
std::optional<std::vector<std::byte>> bytesOfBase64(std::string_view text);

}  // namespace keel
