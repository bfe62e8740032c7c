// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>

#include "client/client_error.h"
#include "runtime/foundation/collections.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

// Checks what a program hands over before it is sent: the daemon would refuse it, and would say
// less about why.

namespace keel {

// `badArgument` when `text` is not UTF-8, `tooLarge` when no message can carry it. `what` names it:
// "the name".
std::optional<ClientError> checkText(const String& text, const char* what);

// The encoded form of `data`, a map or null. `otherBytes` is what the message carries besides.
ClientResult<Dictionary> encodeData(const Value& data, std::size_t otherBytes);

}  // namespace keel
