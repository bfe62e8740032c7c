// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>

#include "client/client_error.h"
#include "runtime/foundation/collections.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

// Validates a program's data before it is sent: the daemon would refuse it with a less precise
// error.

namespace keel {

// Returns `badArgument` if `text` is not UTF-8, `tooLarge` if no message can carry it. `what` names
// it: "the name".
std::optional<ClientError> checkText(const String& text, const char* what);

// Encodes `data`, a map or null. `otherBytes` is the size of the message's other content.
ClientResult<Dictionary> encodeData(const Value& data, std::size_t otherBytes);

}  // namespace keel
