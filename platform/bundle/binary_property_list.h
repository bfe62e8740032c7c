// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <string>

#include "runtime/foundation/value.h"

namespace keel {

// Returns true if `bytes` begin like the binary form, of any version.
bool looksLikeBinaryPropertyList(std::span<const std::byte> bytes);

// Decodes a property list in the binary form, version 00. The error names the offending object.
std::expected<Value, std::string> decodeBinaryPropertyList(std::span<const std::byte> bytes);

}  // namespace keel
