// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <stdexcept>

#include "runtime/foundation/sealed_memory.h"
#include "tests/siege/attack.h"
#include "tests/siege/raw_client.h"

namespace keel::siege {

namespace {

constexpr std::size_t kFrameBytes = 16u << 20;
constexpr std::size_t kMessagesPerBlock = 256;

SharedBytes hello() {
  static const SharedBytes bytes = std::make_shared<const std::string>(helloFrame());
  return bytes;
}

int method(NotifyMethod method) {
  return static_cast<int>(method);
}
int method(AuthMethod method) {
  return static_cast<int>(method);
}

// Repeats `append`, which is given the index, up to the size of a block.
template <class Append>
RequestBlock blockOf(Append append) {
  RequestBlock block;
  for (std::size_t i = 0; i < kMessagesPerBlock; ++i) append(block, i);
  return block;
}

RequestBlock requests(int method, const Value& arguments) {
  return blockOf([&](RequestBlock& block, std::size_t) { block.request(method, arguments); });
}

// {"a": [0, 0, ...]} in exactly `sizeBytes`: as many items as a value of that size can have.
std::string tinyItems(std::size_t sizeBytes) {
  std::string value("\xa1\x61\x61\x9a", 4);
  const std::size_t count = sizeBytes - 8;
  for (int shift = 24; shift >= 0; shift -= 8) value.push_back(static_cast<char>(count >> shift));
  value.resize(sizeBytes, '\0');
  return value;
}

FloodOutcome runFiles(const AttackPlan& plan) {
  const std::string value = tinyItems(kFrameBytes);
  const auto file = sealedMemoryOf(std::as_bytes(std::span(value)));
  if (!file) throw std::runtime_error(file.error().message());
  return runStreams(plan, [&](std::size_t) {
    StreamPlan stream{.path = plan.notifyPath, .prelude = hello(), .file = file->get()};
    stream.block.appendRequest(sealedUpdateFrame(value.size(), plan.ownName));
    return stream;
  });
}

FloodOutcome runLargeFrames(const AttackPlan& plan) {
  // A frame in two parts: its beginning, which has the id, and the item, which all of them share.
  const std::string head("\x84\x01\x1b\0\0\0\1\0\0\0\0\4\x82", 13);
  const std::string name("\x61\x61", 2);
  const auto item = std::make_shared<const std::string>(
      tinyItems(kFrameBytes - head.size() - name.size()) + name);
  return runStreams(plan, [&](std::size_t) {
    StreamPlan stream{.path = plan.notifyPath, .prelude = hello()};
    const std::size_t length = head.size() + item->size();
    std::string beginning;
    for (int i = 0; i < 4; ++i) beginning.push_back(static_cast<char>(length >> (8 * i)));
    stream.block.appendRequest(beginning + head);
    stream.tail = item;
    return stream;
  });
}

FloodOutcome runSkips(const AttackPlan& plan) {
  constexpr std::size_t kSkippedBytes = 64u << 20;
  const auto rest = std::make_shared<const std::string>(kSkippedBytes - 1, '\0');
  return runStreams(plan, [&](std::size_t) {
    StreamPlan stream{.path = plan.notifyPath, .prelude = hello(), .tail = rest};
    stream.block.append(std::string("\0\0\0\4\x84", 5));
    return stream;
  });
}

FloodOutcome runUnsubscribes(const AttackPlan& plan) {
  const Value name = Value::list({plan.ownName});
  const RequestBlock block = blockOf([&](RequestBlock& added, std::size_t) {
    added.append(oneWayFrame(method(NotifyMethod::unsubscribe), name));
  });
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = plan.notifyPath, .prelude = hello(), .block = block};
  });
}

// Four kinds of cheap requests, by the connection's index.
FloodOutcome runRequests(const AttackPlan& plan) {
  const auto blockFor = [&](std::size_t index) {
    const std::string name = plan.ownName + std::to_string(index);
    switch (index % 4) {
      case 0:
        return blockOf([&](RequestBlock& block, std::size_t) {
          block.request(method(NotifyMethod::subscribe), Value::list({name, 0}));
          block.append(oneWayFrame(method(NotifyMethod::unsubscribe), Value::list({name})));
        });
      case 1:
        return requests(method(NotifyMethod::publish),
                        Value::list({Value::map({}), plan.victimName, 0, 0}));
      case 2:
        return requests(method(NotifyMethod::update), Value::list({Value::map({}), name}));
      default:
        return requests(method(NotifyMethod::dump), Value::list({name, false}));
    }
  };
  return runStreams(plan, [&](std::size_t index) {
    return StreamPlan{.path = plan.notifyPath, .prelude = hello(), .block = blockFor(index)};
  });
}

FloodOutcome runBadFrames(const AttackPlan& plan) {
  const RequestBlock block = blockOf(
      [](RequestBlock& added, std::size_t) { added.append(std::string("\1\0\0\0\xf6", 5)); });
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = plan.notifyPath, .prelude = hello(), .block = block};
  });
}

// Updates of 200 own names in turn, so that none can join the one before it. Every follower follows
// a fifth of the names.
FloodOutcome runFanOut(const AttackPlan& plan) {
  constexpr std::size_t kNameCount = 200;
  constexpr std::size_t kPublisherCount = 4;
  const auto name = [&](std::size_t index) { return plan.ownName + std::to_string(index); };
  return runStreams(plan, [&](std::size_t index) {
    std::string prelude = helloFrame();
    StreamPlan stream{.path = plan.notifyPath};
    for (std::size_t i = 0; i < kNameCount; ++i) {
      if (index < kPublisherCount && i % kPublisherCount == index) {
        // Not wide: the ids of the block must be greater.
        prelude += frameOf(Value::list({1, i + 1, method(NotifyMethod::publish),
                                        Value::list({Value::map({}), name(i), 0, 0})}));
        stream.block.request(method(NotifyMethod::update), Value::list({Value::map({}), name(i)}));
      } else if (index >= kPublisherCount && (i + index) % 5 == 0) {
        prelude += frameOf(
            Value::list({1, i + 1, method(NotifyMethod::subscribe), Value::list({name(i), 0})}));
      }
    }
    stream.prelude = std::make_shared<const std::string>(std::move(prelude));
    return stream;
  });
}

FloodOutcome runAuth(const AttackPlan& plan) {
  const RequestBlock block = blockOf([](RequestBlock& added, std::size_t index) {
    if (index % 3 == 0) added.request(method(AuthMethod::serviceCheck), Value::list({}));
    if (index % 3 == 1) added.request(method(AuthMethod::defaultRealm), Value::list({}));
    if (index % 3 == 2) added.request(method(AuthMethod::isAuthed), Value::list({1}));
  });
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = plan.authPath, .prelude = hello(), .block = block};
  });
}

FloodOutcome runAuthRequests(const AttackPlan& plan, AuthMethod called, const Value& arguments) {
  const RequestBlock block = requests(method(called), arguments);
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = plan.authPath, .prelude = hello(), .block = block};
  });
}

FloodOutcome runDigests(const AttackPlan& plan) {
  return runAuthRequests(plan, AuthMethod::digestStart, Value::list({}));
}

FloodOutcome runReferences(const AttackPlan& plan) {
  return runAuthRequests(plan, AuthMethod::authenticateForUser,
                         Value::list({"root", Value::Bytes(3)}));
}

FloodOutcome runDrip(const AttackPlan& plan, const std::string& path, const RequestBlock& block) {
  return runStreams(plan, [&](std::size_t) {
    return StreamPlan{.path = path, .prelude = hello(), .block = block, .writeBytes = 1};
  });
}

FloodOutcome runNotifyDrip(const AttackPlan& plan) {
  RequestBlock block;
  block.append(oneWayFrame(method(NotifyMethod::unsubscribe), Value::list({plan.ownName})));
  return runDrip(plan, plan.notifyPath, block);
}

FloodOutcome runAuthDrip(const AttackPlan& plan) {
  return runDrip(plan, plan.authPath, requests(method(AuthMethod::serviceCheck), Value::list({})));
}

constexpr std::array kAttacks{
    Attack{"files", "16 MiB memory files of tiny items", 100, runFiles},
    Attack{"large-frames", "16 MiB frames of tiny items", 20, runLargeFrames},
    Attack{"skips", "frames of 64 MiB, which are skipped", 50, runSkips},
    Attack{"unsubscribes", "one-way unsubscribes of an unknown name", 4000, runUnsubscribes},
    Attack{"requests", "cheap requests", 200, runRequests},
    Attack{"bad-frames", "frames that cannot be decoded", 200, runBadFrames},
    Attack{"fan-out", "updates of 200 own names to own followers", 2000, runFanOut},
    Attack{"auth", "cheap auth requests", 200, runAuth},
    Attack{"digests", "starts of digest challenges", 100, runDigests},
    Attack{"references", "references of a wrong size, logged each", 200, runReferences},
    Attack{"drip", "one byte at a time", 1000, runNotifyDrip},
    Attack{"auth-drip", "one byte at a time, auth", 1000, runAuthDrip},
};

}  // namespace

std::span<const Attack> floodAttacks() {
  return kAttacks;
}

}  // namespace keel::siege
