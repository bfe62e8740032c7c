// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/foreign_descriptors.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace keel::xpc {
namespace {

// Returns both ends of a connection over the loopback device.
std::pair<FileDescriptor, FileDescriptor> networkSockets() {
  const FileDescriptor listening(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  EXPECT_EQ(::bind(listening.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  EXPECT_EQ(::listen(listening.get(), 1), 0);
  EXPECT_EQ(::getsockname(listening.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  FileDescriptor one(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::connect(one.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  FileDescriptor other(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
  return {std::move(one), std::move(other)};
}

// Returns true once the other end is closed. The timeout only guards against hanging.
bool isClosed(int descriptor) {
  pollfd readable{descriptor, POLLIN, 0};
  return ::poll(&readable, 1, 30'000) == 1;
}

TEST(ForeignDescriptors, OnlyMemoryFilesAreRecognised) {
  EXPECT_TRUE(
      isMemoryFile(FileDescriptor(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING))));
  int both[2];
  ASSERT_EQ(::pipe(both), 0);
  EXPECT_FALSE(isMemoryFile(FileDescriptor(both[0])));
  EXPECT_FALSE(isMemoryFile(FileDescriptor(both[1])));
}

TEST(ForeignDescriptors, AreClosedInTheBackground) {
  int both[2];
  ASSERT_EQ(::pipe(both), 0);
  const FileDescriptor reading(both[0]);
  closeInBackground(FileDescriptor(both[1]), {}, nullptr);
  EXPECT_TRUE(isClosed(reading.get()));
}

// More sockets that would linger for a peer that never reads than there are threads.
TEST(ForeignDescriptors, LingeringSocketsDoNotBlockOthers) {
  const int owner = 0;
  std::vector<FileDescriptor> others;
  for (int i = 0; i < 8; ++i) {
    auto [one, other] = networkSockets();
    const linger forEver{.l_onoff = 1, .l_linger = std::numeric_limits<std::int16_t>::max()};
    ASSERT_EQ(::setsockopt(one.get(), SOL_SOCKET, SO_LINGER, &forEver, sizeof(forEver)), 0);
    std::array<char, 65536> bytes{};
    while (::send(one.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    others.push_back(std::move(other));
    closeInBackground(std::move(one), {}, &owner);
  }
  int both[2];
  ASSERT_EQ(::pipe(both), 0);
  const FileDescriptor reading(both[0]);
  closeInBackground(FileDescriptor(both[1]), {}, &owner);
  EXPECT_TRUE(isClosed(reading.get()));
}

}  // namespace
}  // namespace keel::xpc
