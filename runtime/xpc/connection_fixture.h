// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <thread>

#include "runtime/dispatch/current_user.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/foundation/cbor.h"
#include "runtime/foundation/sealed_memory.h"
#include "runtime/foundation/value.h"
#include "runtime/logging/log_system.h"
#include "runtime/transport/frame_stream.h"
#include "runtime/wire/flat_message.h"
#include "runtime/wire/limits.h"
#include "runtime/xpc/client_endpoint.h"
#include "runtime/xpc/connection.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel::xpc {

class Echo {
 public:
  virtual ~Echo() = default;
  virtual void echo(Dictionary item, Reply<Dictionary, Error> reply) = 0;
  virtual void tell(String text) = 0;
  virtual void keep(Reply<Error> reply) = 0;
  virtual void survey(Reply<Error> reply) = 0;
  virtual void ponder(String text, Reply<Error> reply) = 0;
  virtual void settle(Reply<Error> reply) = 0;
};
using EchoMethods =
    MethodTable<Method<"echo:reply:", &Echo::echo>, Method<"tell:", &Echo::tell>,
                Method<"keep:", &Echo::keep>, Method<"survey:", &Echo::survey, Weight::heavy>,
                Method<"ponder:reply:", &Echo::ponder, Weight::slow>,
                Method<"settle:", &Echo::settle, Weight::lasting>>;
EchoMethods methodTableOf(const Echo*);

struct EchoService final : Echo {
  void echo(Dictionary item, Reply<Dictionary, Error> reply) override {
    user = currentUser();
    reply(std::move(item), nullptr);
  }
  void tell(String text) override { told.emplace_back(text.view()); }
  void keep(Reply<Error> reply) override { kept.push_back(std::move(reply)); }
  void survey(Reply<Error> reply) override {
    user = currentUser();
    kept.push_back(std::move(reply));
  }
  void ponder(String text, Reply<Error> reply) override {
    told.emplace_back(text.view());
    reply(nullptr);
  }
  void settle(Reply<Error> reply) override { reply(nullptr); }
  std::optional<uid_t> user;  // see currentUser(), of the last echo or survey
  std::vector<std::string> told;
  std::vector<Reply<Error>> kept;
};

using Bytes = std::vector<std::byte>;

inline Bytes encoded(const Value& value) {
  return cbor::encode(value);
}

inline Bytes framed(const Bytes& content) {
  Bytes bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(content.size() >> (8 * i)));
  bytes.insert(bytes.end(), content.begin(), content.end());
  return bytes;
}

inline Value hello(const Value& selectors = Value::list({}), bool descriptors = false) {
  return Value::list({0, 1, selectors, Value::map({{"descriptors", descriptors}})});
}

// A service's end of a connection on a hand-driven reactor, and a raw socket as its peer.
class RawPeer : public testing::Test {
 protected:
  RawPeer() : RawPeer(Connection::Options()) {}
  explicit RawPeer(const Connection::Options& options) {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    peer.reset(both[1]);
    PeerIdentity identity;
    identity.pid = 345;
    identity.uid = 501;
    identity.auditSession = 3;
    identity.processName = "mailmod";
    connection = Connection::create(
        identity,
        std::make_unique<FrameStream>(FileDescriptor(both[0]), context,
                                      FrameStream::Terms{.frameLimitBytes = limits::kFrameBytes}),
        options);
    connection->setExportedInterface(Interface::interfaceWithProtocol<Echo>());
    connection->setExportedObject<Echo>(service);
    connection->setRemoteObjectInterface(Interface::interfaceWithProtocol<Echo>());
    connection->setInterruptionHandler([this] { ++interruptions; });
    connection->setInvalidationHandler([this] { ++invalidations; });
  }
  ~RawPeer() override {
    service->kept.clear();
    connection->invalidate();
    turns();
    executor.runAll();
  }

  void turns() {
    while (reactor.turn(/*wait=*/false)) {
    }
  }
  void sendBytes(const Bytes& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t now =
          ::send(peer.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (now > 0) sent += static_cast<std::size_t>(now);
      if (now < 0 && errno != EAGAIN) return;
      turns();
    }
  }
  void sendMessage(const Value& message) { sendBytes(framed(encoded(message))); }
  void start(const Value& selectors = Value::list({}), bool descriptors = false) {
    connection->resume();
    sendMessage(hello(selectors, descriptors));
    const std::vector<Value> first = received();
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(first[0], Value::list({0, 1,
                                     Value::list({"echo:reply:", "tell:", "keep:", "survey:",
                                                  "ponder:reply:", "settle:"}),
                                     Value::map({{"descriptors", true}})}));
  }
  // Returns all messages received from the connection, decoded.
  std::vector<Value> received() {
    turns();
    char buffer[65536];
    for (ssize_t got; (got = ::read(peer.get(), buffer, sizeof(buffer))) != 0;) {
      if (got < 0) break;
      pending.append(buffer, static_cast<std::size_t>(got));
      turns();
    }
    std::vector<Value> messages;
    const auto decode = [&messages](std::span<const std::byte> frame) {
      const auto value = cbor::decode(frame, 64);
      EXPECT_TRUE(value);
      if (value) messages.push_back(*value);
    };
    pending.erase(0, forEachFrame(std::as_bytes(std::span(pending)), decode));
    return messages;
  }
  bool peerSeesTheEnd() {
    turns();
    // Sockets are closed on another thread. The limit only guards against hanging.
    pollfd readable{peer.get(), POLLIN, 0};
    if (::poll(&readable, 1, 30'000) != 1) return false;
    char byte;
    const ssize_t got = ::recv(peer.get(), &byte, 1, MSG_PEEK);
    return got == 0 || (got < 0 && errno == ECONNRESET);
  }
  static Value failure(const Value& id, FailureCode code, const char* text) {
    return Value::list({4, id, static_cast<int>(code), text});
  }

  std::vector<std::string> logged;
  LogCapture capture{[this](const LogMessage& message) {
    if (message.level >= LogLevel::error) logged.emplace_back(message.text);
  }};
  TransportContext context{reactor};
  Reactor::Clock::time_point clock = Reactor::Clock::now();  // advanced by hand
  Reactor reactor{[this] { return clock; }};
  ManualExecutor executor;
  FileDescriptor peer;
  std::string pending;
  std::shared_ptr<EchoService> service = std::make_shared<EchoService>();
  std::shared_ptr<Connection> connection;
  int interruptions = 0;
  int invalidations = 0;
};

// Sends a request together with one descriptor.
inline void sendWithDescriptor(int socket, const Bytes& bytes, int descriptor) {
  iovec vector{const_cast<std::byte*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))]{};
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof(control);
  cmsghdr* rights = CMSG_FIRSTHDR(&header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(int));
  ASSERT_GT(::sendmsg(socket, &header, 0), 0);
}

}  // namespace keel::xpc
