// SPDX-License-Identifier: Apache-2.0
// Redis, RESP2. A publish is SET and PUBLISH in one pipeline, since the last value must be
// retained; the answer to PUBLISH counts.
#include <fmt/format.h>

#include <charconv>

#include "bench/load/frames.h"
#include "bench/load/systems.h"

namespace keel::bench {

namespace {

void appendBulk(std::string& out, std::string_view text) {
  out += fmt::format("${}\r\n{}\r\n", text.size(), text);
}

// Returns the offset behind the bulk string at `place`; npos if it is incomplete.
constexpr std::size_t kUnknown = std::string_view::npos;
std::size_t behindBulk(std::string_view bytes, std::size_t place) {
  if (place + 1 >= bytes.size()) return kUnknown;
  std::size_t size = 0;
  const auto [end, error] =
      std::from_chars(bytes.data() + place + 1, bytes.data() + bytes.size(), size);
  const auto digitsEnd = static_cast<std::size_t>(end - bytes.data());
  return error != std::errc() || digitsEnd + 1 >= bytes.size() ? kUnknown
                                                               : digitsEnd + 2 + size + 2;
}

class RedisSystem final : public System {
 public:
  using System::System;

  void greet(Session&) override {}
  void subscribe(Session& session, const Topic& topic) override {
    session.out += "*2\r\n";
    appendBulk(session.out, "SUBSCRIBE");
    appendBulk(session.out, topic.name);
  }
  void publish(Session& session, Topic& topic) override {
    if (topic.frame.empty()) {
      for (const std::string_view command : {"SET", "PUBLISH"}) {
        topic.frame += "*3\r\n";
        appendBulk(topic.frame, command);
        appendBulk(topic.frame, topic.name);
        appendBulk(topic.frame, payload());
      }
    }
    session.out += topic.frame;
  }

  std::size_t consume(Session& session, std::string_view bytes, Seen& seen) override {
    return consumeFrames(session, bytes, seen, [](std::string_view head) { return read(head); });
  }

 private:
  static Frame read(std::string_view head) {
    if (head[0] == '*') return readArray(head);
    const std::size_t end = head.find('\n');
    if (end == std::string_view::npos) return {};
    if (head[0] == '-')
      throw std::runtime_error(fmt::format("redis answered {}", head.substr(0, end)));
    return {end + 1, head[0] == ':' ? Frame::Kind::acknowledgement : Frame::Kind::nothing};
  }

  // *3 $7 message $N name $M payload; or *3 $9 subscribe $N name :1.
  static Frame readArray(std::string_view head) {
    constexpr std::string_view kMessage = "*3\r\n$7\r\nmessage\r\n";
    const bool isMessage = head.starts_with(kMessage);
    const std::size_t name = isMessage ? kMessage.size() : behindBulk(head, 4);
    const std::size_t last = name < head.size() ? behindBulk(head, name) : kUnknown;
    if (last >= head.size()) return {};
    if (isMessage) {
      const std::size_t end = behindBulk(head, last);
      return end == kUnknown ? Frame{} : Frame{end, Frame::Kind::delivery};
    }
    const std::size_t end = head.find('\n', last);
    return end == std::string_view::npos ? Frame{} : Frame{end + 1, Frame::Kind::confirmation};
  }
};

}  // namespace

std::unique_ptr<System> redisSystem(std::string payload) {
  return std::make_unique<RedisSystem>(std::move(payload));
}

}  // namespace keel::bench
