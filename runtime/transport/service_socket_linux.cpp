// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/service_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "runtime/foundation/value.h"

namespace keel::xpc {

namespace {

std::unexpected<Error> failure(int problem, std::string description) {
  return std::unexpected(Error(
      NSPOSIXErrorDomain, problem,
      Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), std::move(description)}}))));
}

std::expected<sockaddr_un, Error> addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return failure(ENAMETOOLONG, fmt::format("{} is too long for a socket's path", path));
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

// Returns the descriptor that the service manager passed under that name, or -1.
int passedSocket(const std::string& name) {
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(/*unset_environment=*/0, &names);
  int found = -1;
  for (int i = 0; i < count; ++i) {
    const int descriptor = SD_LISTEN_FDS_START + i;
    if (found < 0 && name == names[i] &&
        sd_is_socket_unix(descriptor, SOCK_STREAM, /*listening=*/1, nullptr, 0) > 0) {
      found = descriptor;
    }
    std::free(names[i]);
  }
  std::free(names);
  return found;
}

// Held while a daemon creates its socket, so that two that start at once do not remove each
// other's.
std::expected<FileDescriptor, Error> lockDirectory(const std::string& directory) {
  auto held = openServiceDirectory(directory);
  while (held && ::flock(held->get(), LOCK_EX) != 0) {
    if (errno != EINTR)
      return failure(
          errno, fmt::format("cannot lock the directory {}: {}", directory, std::strerror(errno)));
  }
  return held;
}

FileDescriptor newSocket() {
  return FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

bool isServed(const sockaddr_un& address) {
  const FileDescriptor probe = newSocket();
  if (!probe) return true;  // unknown, so no socket is removed
  if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    return true;
  return errno == EAGAIN;  // its backlog is full
}

}  // namespace

std::expected<FileDescriptor, Error> openServiceDirectory(const std::string& directory) {
  if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
    return failure(
        errno, fmt::format("cannot make the directory {}: {}", directory, std::strerror(errno)));
  }
  FileDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status{};
  if (!opened || ::fstat(opened.get(), &status) != 0) {
    return failure(
        errno, fmt::format("cannot open the directory {}: {}", directory, std::strerror(errno)));
  }
  if (status.st_uid != ::geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return failure(
        EPERM,
        fmt::format(
            "{} must belong to uid {} and be writable by nobody else; fix its owner and mode",
            directory, ::geteuid()));
  }
  return opened;
}

std::expected<ServiceSocket, Error> listenForService(const std::string& directory,
                                                     const std::string& name, ServedSocket served) {
  const std::string path = directory + "/" + name;
  if (const int passed = passedSocket(name); passed >= 0) {
    // A duplicate: the passed descriptor stays as it is, in case something looks for it again.
    FileDescriptor own(::fcntl(passed, F_DUPFD_CLOEXEC, 3));
    if (!own || ::fcntl(own.get(), F_SETFL, ::fcntl(own.get(), F_GETFL) | O_NONBLOCK) != 0) {
      return failure(errno, fmt::format("cannot use the socket passed for {}: {}", name,
                                        std::strerror(errno)));
    }
    return ServiceSocket{std::move(own), path, /*ownsPath=*/false};
  }
  const auto address = addressOf(path);
  if (!address) return std::unexpected(address.error());
  const auto lock = lockDirectory(directory);
  if (!lock) return std::unexpected(lock.error());
  if (served == ServedSocket::kept && isServed(*address)) {
    return failure(
        EADDRINUSE,
        fmt::format("{} is served by another process already; stop that one first", path));
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    return failure(errno,
                   fmt::format("cannot replace {}: {}; remove it", path, std::strerror(errno)));
  }
  FileDescriptor socket = newSocket();
  if (!socket ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0 ||
      ::chmod(path.c_str(), 0666) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
    return failure(errno, fmt::format("cannot listen at {}: {}", path, std::strerror(errno)));
  }
  return ServiceSocket{std::move(socket), path, /*ownsPath=*/true};
}

std::expected<FileDescriptor, Error> connectSocket(const std::string& directory,
                                                   const std::string& name) {
  const std::string path = directory + "/" + name;
  const auto address = addressOf(path);
  if (!address) return std::unexpected(address.error());
  FileDescriptor socket = newSocket();
  if (!socket) return failure(errno, fmt::format("cannot make a socket: {}", std::strerror(errno)));
  // A local connect(2) completes immediately; EAGAIN means that the backlog of the service is full.
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) !=
      0) {
    return failure(errno, fmt::format("cannot connect to {}: {}", path, std::strerror(errno)));
  }
  return socket;
}

}  // namespace keel::xpc
