// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace keel {

// Tells whoever started this process and wants to know (NOTIFY_SOCKET, see sd_notify(3)) that it serves, or that it ends.
// Nobody who wants to know, or nobody who listens, is no failure.
void tellReady();
void tellStopping();

}  // namespace keel
