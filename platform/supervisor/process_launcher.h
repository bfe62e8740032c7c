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

// A program that runs, our child. Its process is ours to reap.
struct LaunchedProcess {
  pid_t pid = -1;
  FileDescriptor pidfd;  // readable when it has ended
};

// A listening socket for a program, and its service's name. Borrowed.
struct NamedSocket {
  std::string name;
  int descriptor;
};

// Starts the job's program, as the job describes it, with the sockets handed over as
// sd_listen_fds(3) expects them: from descriptor 3 on, with LISTEN_FDS, LISTEN_FDNAMES and
// LISTEN_PID. It has a session of its own, no other descriptor but these and its standard ones
// (nothing to read; keeld's standard error to write to, unless the job names files), no signal
// blocked or ignored, and none of keeld's environment. It is sent SIGTERM when the calling thread
// ends, however that comes about.
//
// Its files are opened with the rights of its user, and none of them through a link.
//
// Blocks: looks up accounts, opens files, and waits until the program's code has taken over. The
// error says which step failed.
std::expected<LaunchedProcess, Error> launch(const Job& job,
                                             const std::vector<NamedSocket>& sockets);

}  // namespace keel
