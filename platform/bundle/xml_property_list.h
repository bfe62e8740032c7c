// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <string>

#include "runtime/foundation/value.h"

namespace keel {

// The value of a property list in XML. A document type may be declared, but nothing within it and
// nothing that it refers to is read: the five entities of XML are all there are. Comments and
// processing instructions are skipped. The error begins with the line.
std::expected<Value, std::string> decodeXmlPropertyList(std::span<const std::byte> bytes);

}  // namespace keel
