// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>

#include "platform/foundation/error.h"
#include "platform/foundation/string.h"
#include "platform/supervisor/job.h"

// What both supervisors have in common.

namespace keel {

class QZCommandAuthorization {};

// keeld acts as root, and nobody else asks; so there is nothing in it.
std::shared_ptr<QZCommandAuthorization> makeCommandAuthorization();

// Why no job can have that label, if none can.
std::optional<Error> errorOfLabel(const String& label);

// One line in the log for a job with keys that have no counterpart.
void logUnsupportedKeys(const Job& job);

}  // namespace keel
