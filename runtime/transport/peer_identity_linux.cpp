// SPDX-License-Identifier: Apache-2.0
//
// Pids are reused: by the time /proc/PID is read, PID may be another process. So the pidfd of the
// connecting process is taken from the socket first, the values are read, and then the pidfd shows
// whether its process still exists. If it does, the pid was never free in between, and the values
// are the peer's. A zombie still counts as existing, and its values can still be read.
#include "runtime/transport/peer_identity.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <span>
#include <string_view>

#include "runtime/foundation/file_descriptor.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77  // since Linux 6.5; not yet in the C library's headers
#endif

namespace keel::xpc {

namespace {

std::unexpected<std::error_code> failure(int problem) {
  return std::unexpected(std::error_code(problem, std::system_category()));
}

std::expected<FileDescriptor, std::error_code> pidfdOf(int socket, pid_t pid) {
  int descriptor = -1;
  socklen_t length = sizeof(descriptor);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &length) == 0)
    return FileDescriptor(descriptor);
  if (errno != ENOPROTOOPT) return failure(errno);
  // Before 6.5 the pid has to do. It was the peer's when it connected; should it have ended and its
  // number been reused since, the new owner's values would be read. The kernel assigns pids
  // cyclically, so that takes a full cycle.
  descriptor = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (descriptor < 0) return failure(errno);
  return FileDescriptor(descriptor);
}

// Reads a whole file of /proc into `buffer`; empty if it cannot be read.
std::string_view readProc(pid_t pid, const char* file, std::span<char> buffer) {
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/%s", pid, file);
  const FileDescriptor opened(::open(path.data(), O_RDONLY | O_CLOEXEC));
  if (!opened) return {};
  const ssize_t length = ::read(opened.get(), buffer.data(), buffer.size());
  return {buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

template <class Number>
bool parse(std::string_view text, Number& number) {
  return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc();
}

// proc(5): "PID (COMM) STATE ..."; COMM may hold anything, parentheses included. Field 22 is the
// start time.
bool parseStat(std::string_view stat, PeerIdentity& identity) {
  const std::size_t open = stat.find('(');
  const std::size_t close = stat.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open)
    return false;
  for (const char character : stat.substr(open + 1, close - open - 1)) {
    identity.processName += character > ' ' && character < 0x7f ? character : '?';
  }
  std::string_view fields = stat.substr(close + 1);
  for (int field = 3; field <= 22; ++field) {
    const std::size_t blank = fields.find(' ');
    if (blank == std::string_view::npos) return false;
    fields.remove_prefix(blank + 1);
  }
  return parse(fields, identity.startTime);
}

// Reads what /proc has of the process.
bool readValues(PeerIdentity& identity) {
  std::array<char, 1024> buffer;
  if (!parseStat(readProc(identity.pid, "stat", buffer), identity)) return false;
  // The kernel prints an unset session as 4294967295. Without audit in the kernel the file does not
  // exist: unset, too.
  std::uint32_t session = 0;
  identity.auditSession = parse(readProc(identity.pid, "sessionid", buffer), session)
                              ? static_cast<std::int32_t>(session)
                              : -1;
  return true;
}

}  // namespace

std::expected<PeerIdentity, std::error_code> PeerIdentity::ofThisProcess() {
  PeerIdentity identity;
  identity.pid = ::getpid();
  identity.uid = ::geteuid();
  identity.gid = ::getegid();
  if (!readValues(identity)) return failure(ENOENT);
  return identity;
}

std::expected<PeerIdentity, std::error_code> PeerIdentity::ofSocket(int socket) {
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
    return failure(errno);
  const auto pidfd = pidfdOf(socket, credentials.pid);
  if (!pidfd) return std::unexpected(pidfd.error());

  PeerIdentity identity;
  identity.pid = credentials.pid;
  identity.uid = credentials.uid;
  identity.gid = credentials.gid;
  if (!readValues(identity)) return failure(ESRCH);
  if (::syscall(SYS_pidfd_send_signal, pidfd->get(), 0, nullptr, 0) != 0 && errno != EPERM)
    return failure(errno);
  return identity;
}

}  // namespace keel::xpc
