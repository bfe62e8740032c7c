// SPDX-License-Identifier: Apache-2.0
// NATS. A batch of publishes is followed by PING, whose PONG acknowledges the batch, which its
// clients call a flush. It has no Unix sockets, and retains nothing.
#include <fmt/format.h>

#include <charconv>

#include "bench/load/frames.h"
#include "bench/load/systems.h"

namespace keel::bench {

namespace {

class NatsSystem final : public System {
 public:
  using System::System;

  void greet(Session& session) override {
    session.out += "CONNECT {\"verbose\":false,\"pedantic\":false,\"echo\":false}\r\n";
  }
  void subscribe(Session& session, const Topic& topic) override {
    session.out += fmt::format("SUB {} {}\r\nPING\r\n", topic.name, session.nextNumber++);
  }
  void publish(Session& session, Topic& topic) override {
    if (topic.frame.empty())
      topic.frame = fmt::format("PUB {} {}\r\n{}\r\n", topic.name, payload().size(), payload());
    session.out += topic.frame;
  }
  void endBatch(Session& session, std::size_t count) override {
    session.out += "PING\r\n";
    session.batches.push_back(count);
  }

  std::size_t consume(Session& session, std::string_view bytes, Seen& seen) override {
    return consumeFrames(session, bytes, seen, [&session](std::string_view head) -> Frame {
      const std::size_t end = head.find('\n');
      if (end == std::string_view::npos) return {};
      switch (head[0]) {
        case 'M':
          return {end + 1 + sizeBefore(head.substr(0, end)) + 2, Frame::Kind::delivery};
        case 'P':
          return readPing(session, head, end + 1);
        case '-':
          throw std::runtime_error(fmt::format("nats answered {}", head.substr(0, end)));
        default:
          return {end + 1, Frame::Kind::nothing};
      }
    });
  }

 private:
  static std::size_t sizeBefore(std::string_view line) {
    std::size_t size = 0;
    std::from_chars(line.data() + line.rfind(' ') + 1, line.data() + line.size(), size);
    return size;
  }

  static Frame readPing(Session& session, std::string_view head, std::size_t bytes) {
    if (head[1] == 'I') {  // The server's own PING.
      session.out += "PONG\r\n";
      return {bytes, Frame::Kind::nothing};
    }
    if (session.role == Role::subscriber) return {bytes, Frame::Kind::confirmation};
    const std::size_t count = session.batches.front();
    session.batches.pop_front();
    return {bytes, Frame::Kind::acknowledgement, count};
  }
};

}  // namespace

std::unique_ptr<System> natsSystem(std::string payload) {
  return std::make_unique<NatsSystem>(std::move(payload));
}

}  // namespace keel::bench
