// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <expected>
#include <string>
#include <system_error>

namespace keel::xpc {

// The identity of the process at the other end of a socket, captured once while it was alive and
// never looked up again.
struct PeerIdentity {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  // Field 22 of /proc/PID/stat, in clock ticks since boot: together with the pid it identifies one
  // process for good.
  std::uint64_t startTime = 0;
  // The kernel's audit session; -1 if unset.
  std::int32_t auditSession = -1;
  // The command's short name, printable characters only, at most 15.
  std::string processName;

  // Reads the identity of the process that connected `socket`. Free of races: the values were read
  // while that very process was alive. Fails with ESRCH if it has ended, also if it connected and
  // left the socket to a child.
  static std::expected<PeerIdentity, std::error_code> ofSocket(int socket);
  // Reads the identity of the calling process, as a peer sees it.
  static std::expected<PeerIdentity, std::error_code> ofThisProcess();
};

}  // namespace keel::xpc
