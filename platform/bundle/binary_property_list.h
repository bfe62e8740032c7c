// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <string>

#include "runtime/foundation/value.h"

namespace keel {

// Whether `bytes` begin like the binary form, of whatever version.
bool looksLikeBinaryPropertyList(std::span<const std::byte> bytes);

// The value of a property list in the binary form, version 00. The error names the object where it
// goes wrong.
std::expected<Value, std::string> decodeBinaryPropertyList(std::span<const std::byte> bytes);

}  // namespace keel
