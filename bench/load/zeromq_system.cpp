// SPDX-License-Identifier: Apache-2.0
// ZMTP 3.0 with the NULL mechanism, through a proxy of XSUB and XPUB. A message is one frame that
// begins with its name. It acknowledges neither publishes nor subscriptions, and retains nothing.
#include <utility>

#include "bench/load/frames.h"
#include "bench/load/systems.h"

namespace keel::bench {

namespace {

constexpr std::size_t kGreetingBytes = 64;
enum Stage { kGreeting, kHandshake, kReady };

void appendFrame(std::string& out, unsigned flags, std::string_view body) {
  const bool isLong = body.size() > 255;
  out.push_back(static_cast<char>(flags | (isLong ? 2u : 0u)));
  appendBigEndian(out, body.size(), isLong ? 8 : 1);
  out += body;
}

class ZeromqSystem final : public System {
 public:
  using System::System;

  bool acknowledges() const override { return false; }
  // The protocol reveals only that the connection is up.
  bool confirms() const override { return false; }

  void greet(Session& session) override {
    std::string greeting(kGreetingBytes, '\0');
    greeting[0] = '\xff';
    greeting[9] = '\x7f';
    greeting[10] = 3;
    greeting.replace(12, 4, "NULL");
    session.out += greeting;
    std::string ready("\5READY\13Socket-Type", 18);
    const std::string_view type = session.role == Role::publisher ? "PUB" : "SUB";
    appendBigEndian(ready, type.size(), 4);
    ready += type;
    appendFrame(session.out, 4, ready);
  }
  void subscribe(Session& session, const Topic& topic) override {
    appendFrame(session.stage == kReady ? session.out : session.afterGreeting, 0,
                "\1" + topic.name + " ");
  }
  void publish(Session& session, Topic& topic) override {
    if (topic.frame.empty()) appendFrame(topic.frame, 0, topic.name + " " + payload());
    session.out += topic.frame;
  }

  std::size_t consume(Session& session, std::string_view bytes, Seen& seen) override {
    return consumeFrames(session, bytes, seen, [&session](std::string_view head) -> Frame {
      if (session.stage == kGreeting) {
        if (head.size() < kGreetingBytes) return {};
        session.stage = kHandshake;
        return {kGreetingBytes, Frame::Kind::nothing};
      }
      const std::size_t lengthBytes = (head[0] & 2) != 0 ? 8 : 1;
      if (head.size() < 1 + lengthBytes) return {};
      std::size_t size = 0;
      for (std::size_t place = 1; place <= lengthBytes; ++place) {
        size = size << 8 | static_cast<unsigned char>(head[place]);
      }
      size += 1 + lengthBytes;
      if ((head[0] & 4) != 0) {  // READY
        if (size > head.size()) return {};
        session.stage = kReady;
        session.out += std::exchange(session.afterGreeting, {});
        return {size, Frame::Kind::confirmation};
      }
      // A publisher receives subscriptions.
      return {size, session.role == Role::publisher ? Frame::Kind::nothing : Frame::Kind::delivery};
    });
  }
};

}  // namespace

std::unique_ptr<System> zeromqSystem(std::string payload) {
  return std::make_unique<ZeromqSystem>(std::move(payload));
}

}  // namespace keel::bench
