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

// Not by sd_notify(3), which waits for ever for a reader that does not read.

namespace keel {

namespace {

void tell(std::string_view message, std::chrono::microseconds patience, int flags) {
  const char* const setting = std::getenv("NOTIFY_SOCKET");
  const std::string_view path = setting != nullptr ? setting : "";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() < 2 || (path[0] != '/' && path[0] != '@') ||
      path.size() >= sizeof(address.sun_path))
    return;
  std::ranges::copy(path, address.sun_path);
  // "@" stands for the NUL with which names begin that are in no directory.
  if (path[0] == '@') address.sun_path[0] = '\0';
  const auto addressBytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto whole = std::chrono::floor<std::chrono::seconds>(patience);
  const timeval limit{.tv_sec = whole.count(), .tv_usec = (patience - whole).count()};
  if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0)
    return;
  ::sendto(socket.get(), message.data(), message.size(), MSG_NOSIGNAL | flags,
           reinterpret_cast<const sockaddr*>(&address), addressBytes);
}

}  // namespace

void tellReady(std::chrono::microseconds patience) {
  tell("READY=1", patience, 0);
}

void tellStopping() {
  tell("STOPPING=1", std::chrono::microseconds(0), MSG_DONTWAIT);
}

}  // namespace keel
