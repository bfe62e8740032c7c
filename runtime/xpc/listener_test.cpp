// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/listener.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/dispatch/current_user.h"
#include "runtime/foundation/temporary_folder.h"
#include "runtime/transport/service_socket.h"
#include "runtime/xpc/client_endpoint.h"

namespace keel::xpc {
namespace {

struct CountingDelegate final : ListenerDelegate {
  bool listenerShouldAcceptNewConnection(Listener&,
                                         const std::shared_ptr<Connection>& connection) override {
    seen.push_back(connection->processIdentifier());
    user = currentUser();
    if (accept) {
      connection->resume();
      connections.push_back(connection);
    }
    return accept;
  }
  bool accept = true;
  std::vector<pid_t> seen;
  std::optional<uid_t> user;  // whose connection was accepted last, see currentUser()
  std::vector<std::shared_ptr<Connection>> connections;
};

class Service : public testing::Test {
 protected:
  ~Service() override {
    for (const auto& connection : delegate->connections) connection->invalidate();
    if (listener) listener->invalidate();
    turns();
  }
  void turns() {
    while (reactor.turn(false)) {
    }
  }
  void open() {
    auto made = Listener::inDirectory(directory, "svc", context);
    ASSERT_TRUE(made) << made.error().description();
    listener = *made;
    listener->setDelegate(delegate);
  }
  FileDescriptor connectNow() {
    auto socket = connectSocket(directory, "svc");
    return socket ? std::move(*socket) : FileDescriptor();
  }
  const TemporaryFolder folder;
  const std::string directory = folder.path();
  TransportContext context{reactor};
  Reactor reactor;
  std::shared_ptr<CountingDelegate> delegate = std::make_shared<CountingDelegate>();
  std::shared_ptr<Listener> listener;
};

TEST_F(Service, AcceptsOnceResumedAndNotWhileSuspended) {
  open();
  const FileDescriptor first = connectNow();
  ASSERT_TRUE(first);
  turns();
  EXPECT_TRUE(delegate->seen.empty());
  listener->resume();
  turns();
  EXPECT_EQ(delegate->seen, std::vector{::getpid()});
  listener->suspend();
  turns();
  const FileDescriptor second = connectNow();
  turns();
  EXPECT_EQ(delegate->seen.size(), 1u);
  listener->resume();
  turns();
  EXPECT_EQ(delegate->seen.size(), 2u);
}

TEST_F(Service, AcceptsOnBehalfOfThePeersUser) {
  open();
  listener->resume();
  const FileDescriptor peer = connectNow();
  turns();
  EXPECT_EQ(delegate->user, ::getuid());
  EXPECT_EQ(currentUser(), std::nullopt);
}

TEST_F(Service, TheSocketIsAccessibleToEveryUser) {
  open();
  struct stat status{};
  ASSERT_EQ(::stat((directory + "/svc").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
}

TEST_F(Service, ARefusedConnectionIsDropped) {
  delegate->accept = false;
  open();
  listener->resume();
  const FileDescriptor client = connectNow();
  turns();
  EXPECT_EQ(delegate->seen.size(), 1u);
  // Closed on another thread; the limit only guards against hanging.
  pollfd readable{client.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&readable, 1, 30'000), 1);
  char byte;
  EXPECT_EQ(::recv(client.get(), &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(Service, AnInvalidatedListenerRemovesItsPathAndKeepsItsConnections) {
  open();
  listener->resume();
  const FileDescriptor client = connectNow();
  turns();
  listener->invalidate();
  turns();
  EXPECT_FALSE(connectNow());
  EXPECT_NE(::access((directory + "/svc").c_str(), F_OK), 0);
  ASSERT_EQ(delegate->connections.size(), 1u);
  EXPECT_TRUE(delegate->connections[0]->isValid());
}

TEST_F(Service, ANameServedByAnotherProcessIsRefused) {
  open();
  const auto second = Listener::inDirectory(directory, "svc", context);
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code(), EADDRINUSE);
  EXPECT_TRUE(connectNow());
}

TEST_F(Service, AStaleSocketIsReplaced) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (directory + "/svc").copy(address.sun_path, sizeof(address.sun_path) - 1);
  FileDescriptor old(::socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(::bind(old.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  old.reset();
  open();
  listener->resume();
  EXPECT_TRUE(connectNow());
}

TEST_F(Service, ADirectoryWritableByOthersIsRefused) {
  ::chmod(directory.c_str(), 0777);
  const auto refused = Listener::inDirectory(directory, "svc", context);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), EPERM);
  EXPECT_NE(refused.error().description().find(directory), std::string::npos);
}

TEST_F(Service, ATooLongPathIsRefused) {
  const auto refused = Listener::inDirectory(directory, std::string(200, 'n'), context);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), ENAMETOOLONG);
}

}  // namespace
}  // namespace keel::xpc
