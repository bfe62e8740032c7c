// SPDX-License-Identifier: Apache-2.0
#include "bench/load/address.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace keel::bench {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

FileDescriptor connectTo(int family, const void* address, socklen_t size, const std::string& text) {
  FileDescriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) fail("socket");
  if (::connect(socket.get(), static_cast<const sockaddr*>(address), size) != 0)
    fail("connect to " + text);
  return socket;
}

}  // namespace

FileDescriptor Address::connect() const {
  FileDescriptor socket;
  if (text_.starts_with('/')) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    text_.copy(address.sun_path, sizeof address.sun_path - 1);
    socket = connectTo(AF_UNIX, &address, sizeof address, text_);
  } else {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoul(text_)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socket = connectTo(AF_INET, &address, sizeof address, text_);
    const int on = 1;
    if (setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
      fail("TCP_NODELAY");
  }
  if (fcntl(socket.get(), F_SETFL, O_NONBLOCK) != 0) fail("O_NONBLOCK");
  return socket;
}

}  // namespace keel::bench
