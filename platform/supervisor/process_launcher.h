// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <expected>
#include <string>
#include <vector>

#include "platform/supervisor/job.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

// A running program, our child. The owner reaps its process.
struct LaunchedProcess {
  pid_t pid = -1;
  FileDescriptor pidfd;  // readable once it has exited
};

// A listening socket passed to a program, and its service's name. Borrowed.
struct NamedSocket {
  std::string name;
  int descriptor;
};

// Starts the job's program as the job describes it. The sockets are passed as sd_listen_fds(3)
// expects them: from descriptor 3 on, with LISTEN_FDS, LISTEN_FDNAMES and LISTEN_PID. The program
// gets a session of its own, no other descriptors but the standard ones (empty input; keeld's
// standard error for output, unless the job names files), no blocked or ignored signal, and none of
// keeld's environment. It receives SIGTERM when the calling thread ends, however that happens.
//
// Its files are opened with its user's rights, never through a link.
//
// Blocks: looks up accounts, opens files and waits for the exec. The error names the step that
// failed.
std::expected<LaunchedProcess, Error> launch(const Job& job,
                                             const std::vector<NamedSocket>& sockets);

}  // namespace keel
