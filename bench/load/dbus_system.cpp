// SPDX-License-Identifier: Apache-2.0
// D-Bus. A publish is a signal, which has no reply; a batch of them is followed by a call of Ping
// to the bus itself, whose return acknowledges the batch, since messages of one connection keep
// their order. It retains nothing.
#include <fmt/format.h>
#include <unistd.h>

#include "bench/load/frames.h"
#include "bench/load/systems.h"

namespace keel::bench {

namespace {

constexpr std::string_view kBus = "org.freedesktop.DBus";
enum Type : char { kCall = 1, kReturn = 2, kError = 3, kSignal = 4 };
enum Stage { kAuthentication, kHello, kName, kReady };

void align(std::string& out, std::size_t boundary) {
  while (out.size() % boundary != 0) out += '\0';
}

void appendText(std::string& out, std::string_view text) {
  align(out, 4);
  appendLittleEndian(out, static_cast<std::uint32_t>(text.size()));
  out += text;
  out += '\0';
}

// Returns a message with serial 0. Bodies have one value, aligned to 4.
struct Message {
  Type type;
  std::string_view path, interface, member, destination, signature;
  std::string body;

  std::string encode() const {
    std::string fields;
    field(fields, 1, 'o', path);
    field(fields, 2, 's', interface);
    field(fields, 3, 's', member);
    if (!destination.empty()) field(fields, 6, 's', destination);
    if (!signature.empty()) {
      align(fields, 8);
      fields += std::string{8, 1, 'g', 0, static_cast<char>(signature.size())};
      fields += signature;
      fields += '\0';
    }
    std::string out{'l', type, static_cast<char>(type == kSignal ? 1 : 0), 1};
    appendLittleEndian(out, static_cast<std::uint32_t>(body.size()));
    appendLittleEndian(out, 0);
    appendLittleEndian(out, static_cast<std::uint32_t>(fields.size()));
    out += fields;
    align(out, 8);
    return out + body;
  }

 private:
  static void field(std::string& out, char code, char type, std::string_view text) {
    align(out, 8);
    out += std::string{code, 1, type, 0};
    appendText(out, text);
  }
};

class DbusSystem final : public System {
 public:
  explicit DbusSystem(std::string payload)
      : System(std::move(payload)),
        ping_(Message{kCall, "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer", "Ping", kBus, "",
                      ""}
                  .encode()) {}

  void greet(Session& session) override {
    std::string user;
    for (const char digit : std::to_string(getuid())) user += fmt::format("{:02x}", digit);
    session.out += '\0';
    session.out += fmt::format("AUTH EXTERNAL {}\r\nBEGIN\r\n", user);
    send(session, Message{kCall, "/org/freedesktop/DBus", kBus, "Hello", kBus, "", ""}.encode());
  }
  void subscribe(Session& session, const Topic& topic) override {
    std::string rule;
    appendText(rule, fmt::format("type='signal',interface='bench.Bench',member='{}'", topic.name));
    send(session,
         Message{kCall, "/org/freedesktop/DBus", kBus, "AddMatch", kBus, "s", rule}.encode());
  }
  void publish(Session& session, Topic& topic) override {
    if (topic.frame.empty()) {
      std::string body;
      appendLittleEndian(body, static_cast<std::uint32_t>(payload().size()));
      topic.frame =
          Message{kSignal, "/bench", "bench.Bench", topic.name, "", "ay", body + payload()}
              .encode();
    }
    send(session, topic.frame);
  }
  void endBatch(Session& session, std::size_t count) override {
    send(session, ping_);
    session.batches.push_back(count);
  }

  std::size_t consume(Session& session, std::string_view bytes, Seen& seen) override {
    return consumeFrames(session, bytes, seen,
                         [&session](std::string_view head) { return read(session, head); });
  }

 private:
  static void send(Session& session, std::string_view message) {
    const std::size_t start = session.out.size();
    session.out += message;
    const auto serial = static_cast<std::uint32_t>(session.nextNumber++);
    std::memcpy(session.out.data() + start + 8, &serial, sizeof serial);
  }

  static Frame read(Session& session, std::string_view head) {
    if (session.stage == kAuthentication) {
      const std::size_t end = head.find('\n');
      if (end == std::string_view::npos) return {};
      if (!head.starts_with("OK"))
        throw std::runtime_error(fmt::format("the bus answered {}", head.substr(0, end)));
      session.stage = kHello;
      return {end + 1, Frame::Kind::nothing};
    }
    if (head.size() < 16) return {};
    const std::size_t bytes =
        (16 + littleEndian(head.data() + 12) + 7) / 8 * 8 + littleEndian(head.data() + 4);
    // Stages and batches must not be counted twice.
    if (bytes > head.size() && bytes < kLargeFrameBytes) return {};
    if (head[1] == kError) throw std::runtime_error("the bus refused a call");
    if (head[1] == kReturn) return readReturn(session, bytes);
    if (session.stage == kReady) return {bytes, Frame::Kind::delivery};
    session.stage = kReady;  // The first signal carries the connection's name.
    return {bytes, Frame::Kind::nothing};
  }

  static Frame readReturn(Session& session, std::size_t bytes) {
    if (session.stage == kHello) {
      session.stage = kName;
      return {bytes, Frame::Kind::nothing};
    }
    if (session.role == Role::subscriber) return {bytes, Frame::Kind::confirmation};
    const std::size_t count = session.batches.front();
    session.batches.pop_front();
    return {bytes, Frame::Kind::acknowledgement, count};
  }

  const std::string ping_;
};

}  // namespace

std::unique_ptr<System> dbusSystem(std::string payload) {
  return std::make_unique<DbusSystem>(std::move(payload));
}

}  // namespace keel::bench
