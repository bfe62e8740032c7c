// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <system_error>

namespace keel {

// In steps of nice(1).
inline constexpr int kPriorityIncrease = 5;

// Raises the priority of the calling thread above ordinary ones by kPriorityIncrease. Threads and
// programs that it starts get the ordinary priority. Does nothing if somebody has already chosen a
// priority for the process. Fails where the process lacks the permission.
std::error_code raiseThreadPriority();

}  // namespace keel
