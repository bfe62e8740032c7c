// SPDX-License-Identifier: Apache-2.0
// MQTT 3.1.1. Publishes have QoS 1, so that they are acknowledged, and are retained; subscriptions
// have QoS 0, so that deliveries need no acknowledgement.
#include "bench/load/frames.h"
#include "bench/load/systems.h"

namespace keel::bench {

namespace {

void appendPacket(std::string& out, int type, std::string_view body) {
  out.push_back(static_cast<char>(type));
  std::size_t size = body.size();
  for (; size >= 128; size /= 128) out.push_back(static_cast<char>(size % 128 + 128));
  out.push_back(static_cast<char>(size));
  out += body;
}

void appendText(std::string& out, std::string_view text) {
  appendBigEndian(out, text.size(), 2);
  out += text;
}

class MosquittoSystem final : public System {
 public:
  using System::System;

  void greet(Session& session) override {
    std::string body;
    appendText(body, "MQTT");
    body += std::string{4, 2, 0, 0};  // Version, clean session, no keep-alive.
    appendText(body, "");             // The broker chooses the client's name.
    appendPacket(session.out, 0x10, body);
  }
  void subscribe(Session& session, const Topic& topic) override {
    std::string body;
    appendNumber(body, session);
    appendText(body, topic.name);
    body += '\0';
    appendPacket(session.out, 0x82, body);
  }
  void publish(Session& session, Topic& topic) override {
    if (topic.frame.empty()) {
      std::string body;
      appendText(body, topic.name);
      body += std::string(2, '\0') + payload();
      appendPacket(topic.frame, 0x33, body);
    }
    session.out += topic.frame;
    const std::uint64_t number = takeNumber(session);
    char* const place = session.out.data() + session.out.size() - payload().size() - 2;
    place[0] = static_cast<char>(number >> 8);
    place[1] = static_cast<char>(number);
  }

  std::size_t consume(Session& session, std::string_view bytes, Seen& seen) override {
    return consumeFrames(session, bytes, seen, [](std::string_view head) -> Frame {
      std::size_t size = 0, place = 1;
      for (unsigned shift = 0;; shift += 7, ++place) {
        if (place >= head.size()) return {};
        const auto byte = static_cast<unsigned char>(head[place]);
        size |= std::size_t{byte & 127u} << shift;
        if (byte < 128) break;
      }
      size += place + 1;
      switch (static_cast<unsigned char>(head[0]) >> 4) {
        case 3:
          return {size, Frame::Kind::delivery};
        case 4:
          return {size, Frame::Kind::acknowledgement};
        case 9:
          return {size, Frame::Kind::confirmation};
        default:
          return {size, Frame::Kind::nothing};
      }
    });
  }

 private:
  // Packet identifiers are 16 bits, and never 0.
  static std::uint64_t takeNumber(Session& session) { return session.nextNumber++ % 0xffff + 1; }
  static void appendNumber(std::string& out, Session& session) {
    appendBigEndian(out, takeNumber(session), 2);
  }
};

}  // namespace

std::unique_ptr<System> mosquittoSystem(std::string payload) {
  return std::make_unique<MosquittoSystem>(std::move(payload));
}

}  // namespace keel::bench
