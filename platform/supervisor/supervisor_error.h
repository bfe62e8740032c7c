// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <string>

#include "runtime/foundation/error.h"

namespace keel {

// A POSIX error, `problem` an errno, whose description says what happened, to whom, and what to do.
Error supervisorError(int problem, std::string description);

// Writes `problem` where the caller wants it, if it does; yields false.
bool refuse(Error* error, Error problem);

}  // namespace keel
