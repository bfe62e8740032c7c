// SPDX-License-Identifier: Apache-2.0
#include "tools/exit_code.h"

namespace keel {

ExitCode exitCodeOf(ClientError::Kind kind) {
  switch (kind) {
    using enum ClientError::Kind;
    case notRunning:
    case permissionDenied:
    case connectFailed:
    case disconnected:
      return kExitUnreachable;
    case timedOut:
      return kExitTimedOut;
    case badArgument:
      return kExitUsage;
    default:
      return kExitRefused;
  }
}

}  // namespace keel
