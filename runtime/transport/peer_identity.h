// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <expected>
#include <string>
#include <system_error>

namespace keel::xpc {

// Who is at the other end of a socket, as the kernel said at one moment, while that process was
// alive. Captured once and never looked up again.
struct PeerIdentity {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  // Field 22 of /proc/PID/stat, in clock ticks since boot: with the pid it names one process for
  // good.
  std::uint64_t startTime = 0;
  // The kernel's audit session; -1 when unset.
  std::int32_t auditSession = -1;
  // The command's short name, printable characters only, at most 15.
  std::string processName;

  // Reads the identity of the process that connected `socket`. Free of races: the values were read
  // while that very process was alive. Fails with ESRCH when it is gone (also when it connected and
  // left the socket to a child).
  static std::expected<PeerIdentity, std::error_code> ofSocket(int socket);
  // The calling process's own, as a peer sees it.
  static std::expected<PeerIdentity, std::error_code> ofThisProcess();
};

}  // namespace keel::xpc
