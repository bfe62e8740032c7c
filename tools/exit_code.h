// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "client/client_error.h"

namespace keel {

// What keelctl exits with; --help says the same.
enum ExitCode : int {
  kExitOk = 0,
  kExitRefused = 1,      // keeld refused or failed, or answered no
  kExitUsage = 2,        // the command line, the JSON or a password makes no sense
  kExitUnreachable = 3,  // keeld is not running, does not let us in, or closed the connection
  kExitTimedOut =
      4,  // no answer, nothing to publish, or not as many events or versions as asked for, in time
  kExitCommandFailed = 5,  // a command that was run for an event failed
  kExitOutputFailed = 6,   // the output could not be written
  // 128 and the signal's number when a signal ended it: 130 for SIGINT, 143 for SIGTERM.
};

ExitCode exitCodeOf(ClientError::Kind kind);

}  // namespace keel
