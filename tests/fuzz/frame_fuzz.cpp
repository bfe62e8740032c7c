// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes a connection's peer: the input is the byte stream behind its hello, split into reads of
// odd sizes. Whatever arrives, the connection must not read out of bounds, must answer each request
// at most once, and must never answer an answer.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>
#include <span>
#include <string>

#include "protocols/auth_proxy.h"
#include "protocols/notify_proxy.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/value.h"
#include "runtime/transport/frame_splitter.h"
#include "runtime/wire/limits.h"
#include "runtime/xpc/connection.h"

namespace keel {
namespace {

// Small, so that the fuzzer reaches the frames beyond it.
constexpr std::size_t kFrameLimitBytes = 2048;

// Answers everything immediately, echoing received values.
class Service final : public protocols::NotifyProxy {
 public:
  void authCheckForUser(String user, std::int32_t asid, xpc::Reply<bool, Error> reply) override {
    reply(user.isNull() || asid < 0, nullptr);
  }
  void subscribeTo(Name name, std::uint64_t, xpc::Reply<Dictionary, Error> reply) override {
    reply(nullptr, name.isNull() ? Error("d", 12) : Error());
  }
  void unsubscribeFrom(Name name) override { last_ = name; }
  void publishItem(Dictionary item, Name name, std::uint64_t, std::int64_t,
                   xpc::Reply<Error> reply) override {
    reply(Error(name, 13, item));
  }
  void updatePublishedItem(Dictionary item, Name, xpc::Reply<Error> reply) override {
    // Every accepted value can be decoded.
    static_cast<void>(item.value());
    reply(nullptr);
  }
  void removePublishedItemForName(Name, xpc::Reply<Error>) override {}  // dropped unanswered
  void getModuleTableWithHandler(xpc::Reply<Dictionary> reply) override { reply(nullptr); }
  void dumpNotification(Name, bool, xpc::Reply<Array, Error> reply) override {
    reply(nullptr, nullptr);
  }

 private:
  Name last_;
};

class Wire final : public xpc::Transport {
 public:
  xpc::TransportContext& context() override { return context_; }
  void start(Receiver& receiver) override { receiver_ = &receiver; }
  void send(const xpc::OutgoingMessage& message, EndOfTurnHook::Urgency) override {
    const auto envelope = xpc::peekEnvelope(std::span(message.bytes()).subspan(xpc::kLengthBytes));
    KEEL_CHECK(envelope.has_value());
    cbor::Cursor cursor(std::span(message.bytes()).subspan(xpc::kLengthBytes));
    std::uint64_t count = 0;
    std::uint64_t kind = 0;
    std::uint64_t id = 0;
    KEEL_CHECK(cursor.array(count) && cursor.unsignedInteger(kind));
    if (envelope->kind == xpc::MessageKind::reply) {
      KEEL_CHECK(cursor.unsignedInteger(id));
      KEEL_CHECK(answered_.insert(id).second);
    }
    KEEL_CHECK(!answering_ || envelope->kind != xpc::MessageKind::failure);
  }
  void setReading(bool reading) override { reading_ = reading; }
  void liftHelloBound() override {}
  void close(std::string_view) override { receiver_ = nullptr; }
  bool maySendFiles() override { return true; }
  void perform(Block block) override { block(); }
  void performLater(Block block) override { block(); }
  bool onIoThread() const override { return true; }

  void deliver(std::span<const std::byte> frame) {
    if (receiver_ == nullptr) return;
    const auto envelope = xpc::peekEnvelope(frame);
    answering_ = envelope && (envelope->kind == xpc::MessageKind::reply ||
                              envelope->kind == xpc::MessageKind::failure);
    std::vector<FileDescriptor> files;
    const auto alive = receiver_->holdAlive();
    receiver_->onFrame(frame, files);
    answering_ = false;
  }
  void deliverOversized(std::size_t size, std::span<const std::byte> beginning) {
    if (receiver_ != nullptr) receiver_->onOversizedFrame(size, beginning);
  }
  void end() {
    if (receiver_ != nullptr) std::exchange(receiver_, nullptr)->onClosed({});
  }
  bool open() const { return receiver_ != nullptr && reading_; }

 private:
  Receiver* receiver_ = nullptr;
  bool reading_ = true;
  bool answering_ = false;
  std::set<std::uint64_t> answered_;
  // Never runs: only the pools are used.
  Reactor reactor_;
  xpc::TransportContext context_{reactor_};
};

void run(std::span<const std::byte> input) {
  auto transport = std::make_unique<Wire>();
  Wire& wire = *transport;
  const auto connection = xpc::Connection::create(xpc::PeerIdentity(), std::move(transport),
                                                  xpc::Connection::Options());
  connection->setExportedInterface(xpc::Interface::interfaceWithProtocol<protocols::NotifyProxy>());
  connection->setExportedObject<protocols::NotifyProxy>(std::make_shared<Service>());
  connection->setRemoteObjectInterface(
      xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
  connection->resume();
  // The first byte selects whether the hello is valid and how the bytes are split.
  const std::uint8_t mode = input.empty() ? 0 : std::to_integer<std::uint8_t>(input.front());
  if (!input.empty()) input = input.subspan(1);
  if (mode % 4 != 0) {
    ByteSink hello;
    cbor::Writer writer(hello);
    writer.value(Value::list(
        {0, 1, Value::list({"updateSubscriptionFor:withItem:flags:error:"}), Value::map({})}));
    wire.deliver(hello);
  }
  xpc::FrameSplitter splitter(kFrameLimitBytes, xpc::limits::kFrameBytesFromDaemon);
  const std::size_t cut = 1 + static_cast<std::size_t>(mode / 4) * 7;
  while (!input.empty() && wire.open()) {
    const std::size_t now = std::min(cut, input.size());
    splitter.give(input.first(now));
    input = input.subspan(now);
    for (auto found = splitter.next(); found != xpc::FrameSplitter::Found::nothing;
         found = splitter.next()) {
      if (found == xpc::FrameSplitter::Found::garbage) return wire.end();
      if (found == xpc::FrameSplitter::Found::frame) {
        wire.deliver(splitter.frame());
      } else {
        wire.deliverOversized(splitter.frameSizeBytes(), splitter.frame());
      }
    }
    splitter.keepRest();
  }
  wire.end();
}

}  // namespace
}  // namespace keel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keel::run(std::as_bytes(std::span(data, size)));
  return 0;
}
