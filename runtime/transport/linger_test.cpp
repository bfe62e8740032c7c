// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/linger.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "runtime/wire/limits.h"
#include "runtime/wire/message.h"

namespace keel::xpc {
namespace {

// More than a socket buffer holds.
constexpr std::size_t kTextBytes = 4u << 20;

class LingerTest : public ::testing::Test {
 protected:
  LingerTest() {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    own.reset(both[0]);
    peer.reset(both[1]);
    EXPECT_EQ(admissions.admit(0, admission), Admissions::Refusal::none);
  }
  // Never destroyed: another thread may release the admission after the test.
  static Admissions& roomForOne() {
    static auto& all = *new std::vector<std::unique_ptr<Admissions>>;
    return *all.emplace_back(std::make_unique<Admissions>(1));
  }
  void lingerWith(std::size_t textBytes) {
    OutgoingMessage message;
    writeGoodbye(message, std::string(textBytes, 'x'));
    auto output = queues.take();
    output->append(message);
    lingerAndClose(std::move(own), std::move(output), std::move(admission), this, reactor);
  }
  void turns() {
    while (reactor.turn(/*wait=*/false)) {
    }
  }
  // Reads what is available; returns false at the end of the stream.
  bool read() {
    std::string buffer(1u << 20, '\0');
    for (;;) {
      const ssize_t got = ::recv(peer.get(), buffer.data(), buffer.size(), 0);
      if (got == 0) return false;
      if (got < 0) return true;
      receivedBytes += static_cast<std::size_t>(got);
      turns();
    }
  }
  // Returns true once the stream ends. Sockets are closed on another thread; the timeout only
  // guards against hanging.
  bool readsToTheEnd() {
    while (read()) {
      pollfd readable{peer.get(), POLLIN, 0};
      if (::poll(&readable, 1, 30'000) != 1) return false;
    }
    return true;
  }

  OutputQueuePool queues;
  std::chrono::steady_clock::time_point now{};
  Reactor reactor{[this] { return now; }};
  FileDescriptor own, peer;
  Admissions& admissions = roomForOne();
  Admission admission;
  std::size_t receivedBytes = 0;
};

TEST_F(LingerTest, ClosesImmediatelyWhenEverythingIsWritten) {
  lingerWith(10);
  EXPECT_TRUE(readsToTheEnd());
  EXPECT_GT(receivedBytes, 10u);
}

TEST_F(LingerTest, WritesTheRestAsThePeerReads) {
  lingerWith(kTextBytes);
  turns();
  EXPECT_TRUE(admissions.full());
  EXPECT_TRUE(readsToTheEnd());
  EXPECT_GT(receivedBytes, kTextBytes);
}

TEST_F(LingerTest, GivesUpAtTheDeadline) {
  lingerWith(kTextBytes);
  now += limits::kLinger - std::chrono::milliseconds(1);
  turns();
  EXPECT_TRUE(admissions.full());
  now += std::chrono::milliseconds(1);
  turns();
  EXPECT_TRUE(readsToTheEnd());
  EXPECT_LT(receivedBytes, kTextBytes);
}

TEST_F(LingerTest, EndsWhenThePeerIsGone) {
  lingerWith(kTextBytes);
  peer.reset();
  turns();
  // The deadline was cancelled.
  now += 2 * limits::kLinger;
  EXPECT_FALSE(reactor.turn(/*wait=*/false));
}

}  // namespace
}  // namespace keel::xpc
