// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "daemon/readiness.h"
#include "runtime/foundation/file_descriptor.h"

// Does not use sd_notify(3), which blocks forever on a receiver that does not read.

namespace keel {

namespace {

void notifyManager(std::string_view message, std::chrono::microseconds timeout, int flags) {
  const char* const setting = std::getenv("NOTIFY_SOCKET");
  const std::string_view path = setting != nullptr ? setting : "";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() < 2 || (path[0] != '/' && path[0] != '@') ||
      path.size() >= sizeof(address.sun_path))
    return;
  std::ranges::copy(path, address.sun_path);
  // "@" stands for the leading NUL of an abstract socket name.
  if (path[0] == '@') address.sun_path[0] = '\0';
  const auto addressBytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto whole = std::chrono::floor<std::chrono::seconds>(timeout);
  const timeval limit{.tv_sec = whole.count(), .tv_usec = (timeout - whole).count()};
  if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0)
    return;
  ::sendto(socket.get(), message.data(), message.size(), MSG_NOSIGNAL | flags,
           reinterpret_cast<const sockaddr*>(&address), addressBytes);
}

}  // namespace

void notifyReady(std::chrono::microseconds timeout) {
  notifyManager("READY=1", timeout, 0);
}

void notifyStopping() {
  notifyManager("STOPPING=1", std::chrono::microseconds(0), MSG_DONTWAIT);
}

}  // namespace keel
