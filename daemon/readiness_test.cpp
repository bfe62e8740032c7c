// SPDX-License-Identifier: Apache-2.0
#include "daemon/readiness.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

using namespace std::chrono_literals;

// A service manager that reads only on request.
class Readiness : public ::testing::Test {
 protected:
  Readiness() {
    const std::string path = folder_.path("notify");
    address_.sun_family = AF_UNIX;
    path.copy(address_.sun_path, sizeof(address_.sun_path) - 1);
    EXPECT_EQ(
        ::bind(manager_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~Readiness() override { ::unsetenv("NOTIFY_SOCKET"); }

  // Returns the next message, empty if there is none.
  std::string read() const {
    std::array<char, 100> message{};
    const ssize_t size = ::recv(manager_.get(), message.data(), message.size(), MSG_DONTWAIT);
    return {message.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
  }
  // Returns the number of messages that took.
  int fill() const {
    const FileDescriptor other(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int count = 0;
    while (::sendto(other.get(), "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address_),
                    sizeof(address_)) == 1) {
      ++count;
    }
    EXPECT_EQ(errno, EAGAIN);
    return count;
  }

  const TemporaryFolder folder_;
  sockaddr_un address_{};
  const FileDescriptor manager_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST_F(Readiness, IsSent) {
  notifyReady();
  EXPECT_EQ(read(), "READY=1");
  notifyStopping();
  EXPECT_EQ(read(), "STOPPING=1");
}

TEST_F(Readiness, IsSentToAnAbstractSocket) {
  const FileDescriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // The kernel assigns the name.
  const sa_family_t family = AF_UNIX;
  ASSERT_EQ(::bind(manager.get(), reinterpret_cast<const sockaddr*>(&family), sizeof(family)), 0);
  sockaddr_un address{};
  socklen_t size = sizeof(address);
  ASSERT_EQ(::getsockname(manager.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  const std::string name(address.sun_path + 1, size - offsetof(sockaddr_un, sun_path) - 1);
  ::setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  notifyReady();
  std::array<char, 100> message{};
  EXPECT_EQ(::recv(manager.get(), message.data(), message.size(), MSG_DONTWAIT), 7);
}

TEST_F(Readiness, AFullSocketDoesNotBlock) {
  const int count = fill();
  notifyReady(1ms);
  notifyStopping();
  for (int i = 0; i < count; ++i) EXPECT_EQ(read(), "x");
  EXPECT_EQ(read(), "");
}

TEST_F(Readiness, AMissingSocketIsNotAFailure) {
  for (const std::string& setting :
       {std::string(), std::string("relative"), std::string("/"), std::string("/nowhere"),
        "/" + std::string(sizeof(address_.sun_path), 'x')}) {
    ::setenv("NOTIFY_SOCKET", setting.c_str(), 1);
    notifyReady();
    notifyStopping();
  }
  ::unsetenv("NOTIFY_SOCKET");
  notifyReady();
  EXPECT_EQ(read(), "");
}

}  // namespace
}  // namespace keel
