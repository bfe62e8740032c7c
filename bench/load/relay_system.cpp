// SPDX-License-Identifier: Apache-2.0
// The bare relay: a length of 4 bytes, a letter, and the payload. It acknowledges each read with
// one frame that carries a count.
#include "bench/load/frames.h"
#include "bench/load/systems.h"

namespace keel::bench {

namespace {

class RelaySystem final : public System {
 public:
  explicit RelaySystem(std::string payload) : System(std::move(payload)) {
    appendLittleEndian(frame_, static_cast<std::uint32_t>(this->payload().size() + 1));
    frame_ += 'P';
    frame_ += this->payload();
  }

  void greet(Session&) override {}
  // The relay has no names: every subscriber receives everything.
  void subscribe(Session& session, const Topic&) override {
    appendLittleEndian(session.out, 1);
    session.out += 'S';
  }
  void publish(Session& session, Topic&) override { session.out += frame_; }

  std::size_t consume(Session& session, std::string_view bytes, Seen& seen) override {
    return consumeFrames(session, bytes, seen, [](std::string_view head) -> Frame {
      if (head.size() < 9 && (head.size() < 5 || head[4] != 'S')) return {};
      const std::size_t size = 4 + littleEndian(head.data());
      switch (head[4]) {
        case 'P':
          return {size, Frame::Kind::delivery};
        case 'A':
          return {size, Frame::Kind::acknowledgement, littleEndian(head.data() + 5)};
        case 'S':
          return {size, Frame::Kind::confirmation};
        default:
          throw std::runtime_error("the relay sent what is no frame");
      }
    });
  }

 private:
  std::string frame_;
};

}  // namespace

std::unique_ptr<System> relaySystem(std::string payload) {
  return std::make_unique<RelaySystem>(std::move(payload));
}

}  // namespace keel::bench
