// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace keel {

// Tells whoever started this process and wants to know (NOTIFY_SOCKET, see sd_notify(3)) that it
// serves, or that it ends. Nobody who wants to know, or nobody who listens, is no failure, and
// holds up nothing.

// How long a service manager that is busy with other processes may take until there is room for the
// message: most of them end a daemon that they never hear this from.
inline constexpr std::chrono::seconds kReadyPatience{10};

void tellReady(std::chrono::microseconds patience = kReadyPatience);
// Only if there is room: the end itself says as much.
void tellStopping();

}  // namespace keel
