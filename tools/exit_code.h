// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "client/client_error.h"

namespace keel {

// Exit statuses of keelctl; --help lists them.
enum ExitCode : int {
  kExitOk = 0,
  kExitRefused = 1,        // keeld refused or failed, or answered no
  kExitUsage = 2,          // the command line, the JSON or a password is invalid
  kExitUnreachable = 3,    // keeld is not running, refuses access, or closed the connection
  kExitTimedOut = 4,       // no answer, no input to publish, or too few events or versions, in time
  kExitCommandFailed = 5,  // the command run for an event failed
  kExitOutputFailed = 6,   // the output could not be written
  // 128 plus the signal's number if a signal ended it: 130 for SIGINT, 143 for SIGTERM.
};

ExitCode exitCodeOf(ClientError::Kind kind);

}  // namespace keel
