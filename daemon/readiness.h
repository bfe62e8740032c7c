// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace keel {

// Notifies the service manager (NOTIFY_SOCKET, see sd_notify(3)) that this process is ready, or
// stopping. A missing socket or receiver is not a failure and delays nothing.

// How long to wait for room in a busy service manager's socket: most service managers kill a daemon
// that never reports ready.
inline constexpr std::chrono::seconds kReadyTimeout{10};

void notifyReady(std::chrono::microseconds timeout = kReadyTimeout);
// Does not wait for room: the exit itself conveys the same.
void notifyStopping();

}  // namespace keel
