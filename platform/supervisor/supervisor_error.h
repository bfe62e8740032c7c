// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <string>

#include "runtime/foundation/error.h"

namespace keel {

// Returns a POSIX error; `problem` is the errno. The description states what happened, to what, and
// what to do.
Error supervisorError(int problem, std::string description);

// Stores `problem` in `*error` unless that is null; returns false.
bool refuse(Error* error, Error problem);

}  // namespace keel
