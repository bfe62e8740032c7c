// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <system_error>

namespace keel {

// Steps of nice(1), downwards.
inline constexpr int kPreferredSteps = 5;

// Has the calling thread run before ordinary ones that are ready, too, by kPreferredSteps. Threads
// and programs that it starts are ordinary. Nothing where somebody has chosen a priority for the
// process already. An error where this process may not.
std::error_code preferThisThread();

}  // namespace keel
