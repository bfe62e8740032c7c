// SPDX-License-Identifier: Apache-2.0
#include <poll.h>

#include <array>

#include "tests/siege/attack.h"
#include "tests/siege/raw_client.h"

namespace keel::siege {

namespace {

constexpr std::chrono::seconds kSetUpPatience{10};
constexpr std::chrono::seconds kWithdrawalPatience{2};

int method(NotifyMethod method) {
  return static_cast<int>(method);
}

SharedBytes shared(std::string bytes) {
  return std::make_shared<const std::string>(std::move(bytes));
}

std::string subscribeTo(const std::string& name) {
  return frameOf(Value::list({1, 1, method(NotifyMethod::subscribe), Value::list({name, 0})}));
}

// Publishes names with large data on a connection of its own, and withdraws them in the end: data
// without a publisher would stay for good.
class Publications {
 public:
  Publications(const AttackPlan& plan, std::size_t count, std::size_t itemBytes)
      : prefix_(plan.ownName), count_(count), client_(plan.notifyPath) {
    const Value item = Value::map({{"data", std::string(itemBytes, 'x')}});
    for (std::size_t i = 0; i < count_; ++i) {
      client_.request(NotifyMethod::publish, Value::list({item, name(i), 0, 0}));
    }
    await(count_, std::chrono::steady_clock::now() + kSetUpPatience);
  }
  Publications(const Publications&) = delete;
  Publications& operator=(const Publications&) = delete;
  ~Publications() {
    for (std::size_t i = 0; i < count_; ++i) {
      client_.request(NotifyMethod::remove, Value::list({name(i)}));
    }
    await(2 * count_, std::chrono::steady_clock::now() + kWithdrawalPatience);
  }

 private:
  std::string name(std::size_t index) const { return prefix_ + std::to_string(index); }

  void await(std::size_t replyCount, Deadline deadline) {
    while (client_.replyCount() < replyCount && !client_.ended() &&
           std::chrono::steady_clock::now() < deadline) {
      client_.write();
      pollfd waited{.fd = client_.descriptor(), .events = POLLIN, .revents = 0};
      if (client_.hasOutput()) waited.events |= POLLOUT;
      ::poll(&waited, 1, 100);
      client_.read(kNoLimit);
    }
  }

  const std::string prefix_;
  const std::size_t count_;
  RawClient client_;
};

FloodOutcome runFollowers(const AttackPlan& plan, std::size_t readBytes, WhenEnded whenEnded) {
  const SharedBytes prelude = shared(helloFrame() + subscribeTo(plan.victimName));
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = plan.notifyPath,
                      .prelude = prelude,
                      .readBytes = readBytes,
                      .whenEnded = whenEnded};
  });
}

FloodOutcome runDeafFollowers(const AttackPlan& plan) {
  return runFollowers(plan, 0, WhenEnded::stay);
}
FloodOutcome runReturningFollowers(const AttackPlan& plan) {
  return runFollowers(plan, 0, WhenEnded::connectAgain);
}
FloodOutcome runSippingFollowers(const AttackPlan& plan) {
  return runFollowers(plan, 1, WhenEnded::stay);
}

// One connection publishes and reads its answers, the others follow and never read.
FloodOutcome runOwnFollowers(const AttackPlan& plan, Descriptors descriptors,
                             std::size_t itemBytes) {
  const Value item = Value::map({{"data", std::string(itemBytes, 'x')}});
  const std::string hello = helloFrame(descriptors);
  const SharedBytes following = shared(hello + subscribeTo(plan.ownName));
  const SharedBytes publishing =
      shared(hello + frameOf(Value::list({1, 1, method(NotifyMethod::publish),
                                          Value::list({item, plan.ownName, 0, 0})})));
  return runStreams(plan, [&](std::size_t index) {
    // The publisher comes last, when all others wait for it.
    if (index + 1 < plan.connectionCount) {
      return StreamPlan{.path = plan.notifyPath, .prelude = following, .readBytes = 0};
    }
    StreamPlan publisher{.path = plan.notifyPath, .prelude = publishing};
    for (int i = 0; i < 16; ++i) {
      publisher.block.request(method(NotifyMethod::update), Value::list({item, plan.ownName}));
    }
    return publisher;
  });
}

FloodOutcome runDeafOwn(const AttackPlan& plan) {
  // Small enough that each follower gets a copy of its own.
  return runOwnFollowers(plan, Descriptors::refused, 1000);
}
FloodOutcome runDeafFiles(const AttackPlan& plan) {
  return runOwnFollowers(plan, Descriptors::accepted, 1u << 20);
}

FloodOutcome runDumps(const AttackPlan& plan) {
  const Publications publications(plan, 14, 4u << 20);
  std::string requests = helloFrame(Descriptors::accepted);
  for (int id = 1; id <= 100; ++id) {
    requests +=
        frameOf(Value::list({1, id, method(NotifyMethod::dump), Value::list({"_all", true})}));
  }
  const SharedBytes prelude = shared(std::move(requests));
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = plan.notifyPath, .prelude = prelude, .readBytes = 0};
  });
}

FloodOutcome runHalfFrames(const AttackPlan& plan) {
  constexpr std::size_t kSentBytes = 65000;
  const std::string frame =
      requestFrame(method(NotifyMethod::update),
                   Value::list({Value::map({{"data", std::string(1u << 20, 'x')}}), plan.ownName}));
  const SharedBytes prelude = shared(helloFrame() + frame.substr(0, kSentBytes));
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = plan.notifyPath, .prelude = prelude, .readBytes = 0};
  });
}

// Every name stays in the daemon's table, for which its user is charged, until there is no room
// for more.
FloodOutcome runNames(const AttackPlan& plan) {
  return runStreams(plan, [&](std::size_t index) {
    StreamPlan stream{.path = plan.notifyPath, .prelude = shared(helloFrame())};
    const std::string name =
        plan.ownName + std::to_string(index) + "." + std::string(kUniqueDigits);
    for (int i = 0; i < 256; ++i) {
      stream.block.request(method(NotifyMethod::publish),
                           Value::list({Value::map({}), name, 0, 0}));
    }
    return stream;
  });
}

constexpr std::array kAttacks{
    Attack{"deaf-followers", "followers of the victim's name that do not read", 8000,
           runDeafFollowers},
    Attack{"returning", "the same, and each comes back when it is dropped", 8000,
           runReturningFollowers},
    Attack{"sips", "followers of the victim's name that read byte by byte", 1000,
           runSippingFollowers},
    Attack{"deaf-own", "followers of an own name that do not read", 8000, runDeafOwn},
    Attack{"deaf-files", "followers that do not read their files", 200, runDeafFiles},
    Attack{"dumps", "unread dumps of all, as files", 50, runDumps},
    Attack{"half-frames", "65,000 bytes of a frame, and no more", 8200, runHalfFrames},
    Attack{"names", "as many names as there is room for", 20, runNames},
};

}  // namespace

std::span<const Attack> holdingAttacks() {
  return kAttacks;
}

}  // namespace keel::siege
