// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/peer_identity.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/temporary_folder.h"

namespace keel::xpc {
namespace {

// A listening socket in a directory of its own, and processes that connect to it.
class PeerIdentityTest : public testing::Test {
 protected:
  PeerIdentityTest() {
    address_.sun_family = AF_UNIX;
    std::strcpy(address_.sun_path, folder_.path("socket").c_str());
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof(address_)), 0);
    EXPECT_EQ(::listen(listener_.get(), 8), 0);
    int both[2];
    EXPECT_EQ(::pipe(both), 0);
    release_[0].reset(both[0]);
    release_[1].reset(both[1]);
  }

  int connectNow() {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    return ::connect(socket, reinterpret_cast<sockaddr*>(&address_), sizeof(address_)) == 0 ? socket
                                                                                            : -1;
  }
  FileDescriptor accept() {
    return FileDescriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  // In a child: waits until release().
  void waitForRelease() {
    release_[1].reset();
    char byte = 0;
    [[maybe_unused]] const ssize_t got = ::read(release_[0].get(), &byte, 1);
  }
  void release() { release_[1].reset(); }

  const TemporaryFolder folder_;
  sockaddr_un address_{};
  FileDescriptor listener_;
  FileDescriptor release_[2];
};

TEST_F(PeerIdentityTest, ALivePeerIsCaptured) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_NAME, "odd ) (name\x01");
    connectNow();
    waitForRelease();
    ::_exit(0);
  }
  const FileDescriptor socket = accept();
  const auto identity = PeerIdentity::ofSocket(socket.get());
  ASSERT_TRUE(identity) << identity.error().message();
  EXPECT_EQ(identity->pid, child);
  EXPECT_EQ(identity->uid, ::geteuid());
  EXPECT_EQ(identity->gid, ::getegid());
  EXPECT_EQ(identity->processName, "odd?)?(name?");
  EXPECT_GT(identity->startTime, 0u);
  std::uint32_t session = 0;
  std::ifstream("/proc/" + std::to_string(child) + "/sessionid") >> session;
  EXPECT_EQ(identity->auditSession, static_cast<std::int32_t>(session));
  release();
  ::waitpid(child, nullptr, 0);
}

TEST_F(PeerIdentityTest, AnEndedPeerIsRefused) {
  const pid_t child = ::fork();
  if (child == 0) {
    connectNow();
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  const FileDescriptor socket = accept();
  const auto identity = PeerIdentity::ofSocket(socket.get());
  ASSERT_FALSE(identity);
  EXPECT_EQ(identity.error().value(), ESRCH);
}

TEST_F(PeerIdentityTest, ASocketLeftToAChildIsRefused) {
  const pid_t connector = ::fork();
  if (connector == 0) {
    connectNow();
    if (::fork() == 0) waitForRelease();
    ::_exit(0);
  }
  ::waitpid(connector, nullptr, 0);
  const FileDescriptor socket = accept();
  EXPECT_FALSE(PeerIdentity::ofSocket(socket.get()));
  release();
}

TEST_F(PeerIdentityTest, TheUserIsThatOfTheMomentOfConnecting) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  const pid_t child = ::fork();
  if (child == 0) {
    connectNow();
    if (::setresuid(502, 502, 502) != 0) ::_exit(1);
    waitForRelease();
    ::_exit(0);
  }
  const FileDescriptor socket = accept();
  const auto identity = PeerIdentity::ofSocket(socket.get());
  if (identity) {
    EXPECT_EQ(identity->uid, 0u);
  }
  release();
  ::waitpid(child, nullptr, 0);
}

TEST(PeerIdentity, OtherDescriptorsAreRefused) {
  const FileDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(PeerIdentity::ofSocket(file.get()));
}

TEST(PeerIdentity, OfThisProcessIsWhatAPeerSees) {
  int both[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both), 0);
  const FileDescriptor one(both[0]);
  const FileDescriptor other(both[1]);
  const auto seen = PeerIdentity::ofSocket(one.get());
  const auto own = PeerIdentity::ofThisProcess();
  ASSERT_TRUE(seen && own);
  EXPECT_EQ(own->pid, seen->pid);
  EXPECT_EQ(own->uid, seen->uid);
  EXPECT_EQ(own->gid, seen->gid);
  EXPECT_EQ(own->startTime, seen->startTime);
  EXPECT_EQ(own->auditSession, seen->auditSession);
}

}  // namespace
}  // namespace keel::xpc
