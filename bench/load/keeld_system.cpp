// SPDX-License-Identifier: Apache-2.0
// keeld, as in docs/protocol.md. A payload is a byte string at one key of the published dictionary.
#include <fmt/format.h>

#include <span>

#include "bench/load/frames.h"
#include "bench/load/systems.h"
#include "runtime/foundation/sealed_memory.h"

namespace keel::bench {

namespace {

constexpr std::size_t kFileBytes = 64u << 10;  // From here on a value may travel as a memory file.
constexpr char kNull = '\xf6';

// No received frame is shorter.
constexpr std::size_t kHeadBytes = 9;
// Offset of the name's head in a delivery; the item follows the name.
constexpr std::size_t kNameHead = 8;

// A subscriber of an unpublished name that has other subscribers receives a null item. It does not
// count as a publish.
bool isNullItem(std::string_view delivery) {
  const auto nameBytes = static_cast<unsigned char>(delivery[kNameHead]) - 0x60u;
  if (nameBytes >= 24)
    throw std::runtime_error("names of 24 bytes and more are not understood here");
  const std::size_t item = kNameHead + 1 + nameBytes;
  return item < delivery.size() && delivery[item] == kNull;
}

// Indexes into the daemon's list of methods; version 1 never changes them.
enum Method : char { kSubscribe = 1, kPublish = 3, kUpdate = 4, kDump = 7 };

void appendHead(std::string& out, unsigned major, std::uint64_t value) {
  const auto first = [&](unsigned low) { out.push_back(static_cast<char>(major << 5 | low)); };
  if (value < 24) return first(static_cast<unsigned>(value));
  const unsigned power = value <= 0xff ? 0 : value <= 0xffff ? 1 : value <= 0xffffffff ? 2 : 3;
  first(24 + power);
  appendBigEndian(out, value, 1 << power);
}

void appendText(std::string& out, std::string_view text) {
  appendHead(out, 3, text.size());
  out += text;
}

class KeeldSystem final : public System {
 public:
  explicit KeeldSystem(std::string payload) : System(std::move(payload)) {
    item_ = "\xa1";
    appendText(item_, "v");
    appendHead(item_, 2, this->payload().size());
    item_ += this->payload();
  }

  bool passesFiles() const override { return item_.size() >= kFileBytes; }

  void greet(Session& session) override {
    std::string hello{'\x84', 0, 1};
    if (session.role == Role::subscriber) {
      hello += '\x81';
      appendText(hello, "updateSubscriptionFor:withItem:flags:error:");
    } else {
      hello += '\x80';
    }
    hello += passesFiles() ? '\xa1' : '\xa0';
    if (passesFiles()) {
      appendText(hello, "descriptors");
      hello += '\xf5';
    }
    appendLittleEndian(session.out, static_cast<std::uint32_t>(hello.size()));
    session.out += hello;
  }

  void subscribe(Session& session, const Topic& topic) override {
    std::string tail{kSubscribe, '\x82'};
    appendText(tail, topic.name);
    tail += '\0';
    request(session, tail);
  }

  void publish(Session& session, Topic& topic) override {
    if (passesFiles()) attachFile(session);
    if (!topic.published) {
      topic.published = true;
      std::string tail{kPublish, '\x84'};
      appendItemAndName(tail, topic);
      tail.append(2, '\0');
      request(session, tail);
      topic.frame = {kUpdate, '\x82'};
      appendItemAndName(topic.frame, topic);
      return;
    }
    request(session, topic.frame);
  }

  void dump(Session& session) override {
    std::string tail{kDump, '\x82'};
    appendText(tail, "_all");
    tail += '\xf4';
    request(session, tail);
  }

  std::size_t consume(Session& session, std::string_view bytes, Seen& seen) override {
    return consumeFrames(
        session, bytes, seen, [role = session.role](std::string_view head) -> Frame {
          if (head.size() < kHeadBytes) return {};
          const std::size_t size = 4 + littleEndian(head.data());
          switch (head[5]) {
            case 0:
              return {size, Frame::Kind::nothing};
            case 2:
              return isNullItem(head) ? Frame{size, Frame::Kind::nothing}
                                      : Frame{size, Frame::Kind::delivery};
            case 3:
              if (size <= head.size() && head[size - 1] != kNull)
                throw std::runtime_error("keeld refused a request");
              return {size, role == Role::subscriber ? Frame::Kind::confirmation
                                                     : Frame::Kind::acknowledgement};
            default:
              throw std::runtime_error(
                  fmt::format("keeld answered: {}", head.substr(0, std::min(size, head.size()))));
          }
        });
  }

 private:
  void appendItemAndName(std::string& out, const Topic& topic) const {
    if (passesFiles()) {
      appendHead(out, 6, 51742);
      appendHead(out, 0, item_.size());
    } else {
      out += item_;
    }
    appendText(out, topic.name);
  }

  // A new file per publish, as for a publisher with new data.
  void attachFile(Session& session) const {
    if (!session.out.empty()) throw std::runtime_error("a large value must be sent alone");
    const std::span<const char> item(item_);
    auto file = sealedMemoryOf(std::as_bytes(item));
    if (!file) throw std::runtime_error("memory file: " + file.error().message());
    session.file = std::move(*file);
  }

  static void request(Session& session, std::string_view tail) {
    std::string& out = session.out;
    const std::size_t start = out.size();
    appendLittleEndian(out, 0);
    out += "\x84\x01";
    appendHead(out, 0, session.nextNumber++);
    out += tail;
    const auto size = static_cast<std::uint32_t>(out.size() - start - 4);
    std::memcpy(out.data() + start, &size, sizeof size);
  }

  std::string item_;
};

}  // namespace

std::unique_ptr<System> keeldSystem(std::string payload) {
  return std::make_unique<KeeldSystem>(std::move(payload));
}

}  // namespace keel::bench
