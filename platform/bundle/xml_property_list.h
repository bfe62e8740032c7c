// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <string>

#include "runtime/foundation/value.h"

namespace keel {

// Decodes a property list in XML. A document type may be declared, but neither its content nor
// anything it refers to is read: only XML's five predefined entities exist. Comments and processing
// instructions are skipped. The error begins with the line.
std::expected<Value, std::string> decodeXmlPropertyList(std::span<const std::byte> bytes);

}  // namespace keel
