// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "tests/siege/attack.h"
#include "tests/siege/crowd.h"
#include "tests/siege/raw_client.h"

namespace keel::siege {

namespace {

constexpr std::chrono::milliseconds kAnswerPatience{50};

int method(NotifyMethod method) {
  return static_cast<int>(method);
}

bool isOver(Deadline deadline) {
  return std::chrono::steady_clock::now() >= deadline;
}

std::string subscribeTo(const std::string& name, std::size_t id) {
  return frameOf(Value::list({1, id, method(NotifyMethod::subscribe), Value::list({name, 0})}));
}

// Connects, sends `prelude` and closes, as fast as one thread can.
FloodOutcome connectAgainAndAgain(const AttackPlan& plan, const std::string& prelude) {
  const Deadline end = plan.end();
  FloodOutcome outcome;
  while (!isOver(end)) {
    const FileDescriptor socket = connectTo(plan.notifyPath, end);
    if (!socket) break;
    ++outcome.connectionCount;
    const ssize_t sent =
        ::send(socket.get(), prelude.data(), prelude.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) outcome.sentBytes += static_cast<std::size_t>(sent);
  }
  return outcome;
}

FloodOutcome runConnects(const AttackPlan& plan) {
  return connectAgainAndAgain(plan, helloFrame() + subscribeTo(plan.ownName, 1));
}

FloodOutcome runStrangers(const AttackPlan& plan) {
  return connectAgainAndAgain(plan, std::string("\1\0\0\0\xf6", 5));
}

// All connections end at once, with what they follow; then they come again.
FloodOutcome runExits(const AttackPlan& plan) {
  constexpr std::size_t kNameCount = 1000;
  // Less than the replies take, but near it: most subscriptions are there.
  constexpr std::size_t kReplyBytes = 11;
  std::string following = helloFrame();
  for (std::size_t i = 0; i < kNameCount; ++i) {
    following += subscribeTo(plan.ownName + std::to_string(i), i + 1);
  }
  const auto prelude = std::make_shared<const std::string>(std::move(following));
  const Deadline end = plan.end();
  FloodOutcome outcome;
  while (!isOver(end)) {
    Flood flood;
    for (std::size_t i = 0; i < plan.connectionCount && !isOver(end); ++i) {
      flood.add({.path = plan.notifyPath, .prelude = prelude}, end);
    }
    flood.runUntilReceived(plan.connectionCount * kNameCount * kReplyBytes, end);
    outcome.connectionCount += flood.outcome().connectionCount;
    outcome.endedCount += flood.outcome().endedCount;
    outcome.sentBytes += flood.outcome().sentBytes;
    outcome.receivedBytes += flood.outcome().receivedBytes;
  }
  return outcome;
}

// Sends one end of a connection through that very connection.
void passItself(const FileDescriptor& socket) {
  sendWith(socket.get(), std::string_view("\0", 1), socket.get());
}

// A connection that leaves its deliveries unread is not read either. So the descriptor that waits
// in it keeps it open, although nobody else has it: neither end ever comes to an end of file.
FloodOutcome runSelfPassing(const AttackPlan& plan) {
  // More than may wait for a connection that is still read; each item is copied for it.
  constexpr std::size_t kNameCount = 350;
  constexpr std::size_t kItemBytes = 4000;
  constexpr int kAnswerBytes = 64 << 10;
  const Deadline end = plan.end();
  FloodOutcome outcome;

  const Value item = Value::map({{"data", std::string(kItemBytes, 'x')}});
  std::string publishing = helloFrame();
  for (std::size_t i = 0; i < kNameCount; ++i) {
    publishing +=
        frameOf(Value::list({1, i + 1, method(NotifyMethod::publish),
                             Value::list({item, plan.ownName + std::to_string(i), 0, 0})}));
  }
  Flood publisher;
  publisher.add({.path = plan.notifyPath,
                 .prelude = std::make_shared<const std::string>(std::move(publishing))},
                end);
  publisher.runUntilSent(end);

  std::string following = helloFrame();
  for (std::size_t i = 0; i < kNameCount; ++i) {
    following += subscribeTo(plan.ownName + std::to_string(i), i + 1);
  }
  for (std::size_t i = 0; i < plan.connectionCount && !isOver(end); ++i) {
    const FileDescriptor socket = connectTo(plan.notifyPath, end);
    if (!socket) break;
    ++outcome.connectionCount;
    ::send(socket.get(), following.data(), following.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    // Once that much waits here, more waits there.
    const Deadline patience = std::chrono::steady_clock::now() + kAnswerPatience;
    for (int waiting = 0; waiting < kAnswerBytes && !isOver(patience);) {
      ::poll(nullptr, 0, 1);
      if (::ioctl(socket.get(), FIONREAD, &waiting) != 0) break;
    }
    passItself(socket);
  }
  publisher.run(end);
  return outcome;
}

FloodOutcome runCrowdAttack(const AttackPlan& plan) {
  const CrowdOutcome crowd =
      runCrowd({.path = plan.notifyPath,
                .namePrefix = plan.ownName,
                .nameCount = plan.nameCount,
                .followerCount = plan.connectionCount,
                .duration = std::chrono::duration_cast<std::chrono::seconds>(plan.duration)});
  return {.connectionCount = plan.connectionCount, .endedCount = crowd.endedCount};
}

constexpr std::array kAttacks{
    Attack{"crowd", "more updates for followers than they can read", 5000, runCrowdAttack},
    Attack{"connects", "connections that subscribe and end", 1, runConnects},
    Attack{"strangers", "connections that begin with garbage", 1, runStrangers},
    Attack{"exits", "followers of 1,000 names that end all at once", 100, runExits},
    Attack{"self-passing", "a connection that keeps itself open", 400, runSelfPassing},
};

}  // namespace

std::span<const Attack> connectionAttacks() {
  return kAttacks;
}

}  // namespace keel::siege
